#ifndef VEXUPNPCP_TESTS_STRESS_STRESS_WATCH_H_
#define VEXUPNPCP_TESTS_STRESS_STRESS_WATCH_H_

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace vex_stress {

using Clock = std::chrono::steady_clock;

// Counts by name, for the report and for what must have happened at all.
class Counts {
 public:
  static void Add(const std::string& name, long long amount = 1);
  static long long Of(const std::string& name);
  static void Print();
};

// Notes a broken promise; the test fails.
void Violation(const std::string& text);

// Lets host threads in while the library runs, and keeps them out while it is stopped and started.
class Gate {
 public:
  void Enter();
  void Leave();
  // Waits until nobody is inside.
  void Close();
  void Open();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int inside_ = 0;
  bool closed_ = false;
};

// Ends the process, with the call's name, when a call into the library takes longer than its bound.
class Watchdog {
 public:
  Watchdog();
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  // One call, from here to the end of the scope. `name` is a literal.
  class Call {
   public:
    explicit Call(const char* name);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    const Clock::time_point begun_;
    const char* const name_;
    int place_ = -1;
  };

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace vex_stress

#endif  // VEXUPNPCP_TESTS_STRESS_STRESS_WATCH_H_
