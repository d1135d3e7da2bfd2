#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vexupnpcp/timer.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/host_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/sanitizers.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace utils {
namespace {

using testing::ElementsAre;
using vex_test::WaitUntil;

constexpr int kNever = 24 * 3600 * 1000;

// What the callbacks of one test saw, in the order of their calls.
struct Record {
  std::mutex mutex;
  std::vector<std::pair<int, int>> calls;  // Id of the timer, value of its argument.
  std::vector<std::thread::id> threads;
  std::string thread_name;

  std::size_t size() {
    const std::lock_guard<std::mutex> lock(mutex);
    return calls.size();
  }
  std::vector<int> Values() {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<int> values;
    for (const auto& call : calls) values.push_back(call.second);
    return values;
  }
};

struct Argument {
  Record* record;
  int value;
};

void Note(int id, void* arg) {
  const Argument* const argument = static_cast<Argument*>(arg);
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  const std::lock_guard<std::mutex> lock(argument->record->mutex);
  argument->record->calls.emplace_back(id, argument->value);
  argument->record->threads.push_back(std::this_thread::get_id());
  argument->record->thread_name = name;
}

void FailTheTest(int, void*) { ADD_FAILURE() << "a cancelled timer has fired"; }

// A callback that waits inside until it is let out.
struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  bool inside = false;
  bool open = false;
  bool left = false;

  static void Pass(int, void* arg) {
    Gate* const gate = static_cast<Gate*>(arg);
    std::unique_lock<std::mutex> lock(gate->mutex);
    gate->inside = true;
    gate->changed.notify_all();
    gate->changed.wait(lock, [gate] { return gate->open; });
    gate->left = true;
  }
  void WaitInside() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return inside; });
  }
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex);
    open = true;
    changed.notify_all();
  }
  bool Left() {
    const std::lock_guard<std::mutex> lock(mutex);
    return left;
  }
};

class TimerTest : public testing::Test {
 protected:
  void SetUp() override { Timer::TerminateManager(); }
  void TearDown() override { Timer::TerminateManager(); }
};

TEST_F(TimerTest, FirstIdIsOneAndTheNextTwo) {
  EXPECT_EQ(1, Timer::Start(kNever, &FailTheTest, nullptr));
  EXPECT_EQ(2, Timer::Start(kNever, &FailTheTest, nullptr));
}

TEST_F(TimerTest, IdsAreNotReusedAfterCancelAndExpiry) {
  Record record;
  Argument argument{&record, 0};
  const int first = Timer::Start(0, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
  const int second = Timer::Start(kNever, &FailTheTest, nullptr);
  Timer::Cancel(second, nullptr);
  EXPECT_EQ(1, first);
  EXPECT_EQ(2, second);
  EXPECT_EQ(3, Timer::Start(kNever, &FailTheTest, nullptr));
}

TEST_F(TimerTest, IdsBeginAtOneAgainAfterTermination) {
  Timer::Start(kNever, &FailTheTest, nullptr);
  Timer::Start(kNever, &FailTheTest, nullptr);
  Timer::TerminateManager();
  EXPECT_EQ(1, Timer::Start(kNever, &FailTheTest, nullptr));
}

TEST_F(TimerTest, CallbackGetsIdAndArgumentOnceOnTheTimerThread) {
  Record record;
  Argument argument{&record, 17};
  const int id = Timer::Start(1, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
  // A second expiry would stand before this one.
  Argument last{&record, 18};
  Timer::Start(1, &Note, &last);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 2; }));
  const std::lock_guard<std::mutex> lock(record.mutex);
  EXPECT_EQ(std::make_pair(id, 17), record.calls[0]);
  EXPECT_EQ(18, record.calls[1].second);
  EXPECT_EQ(record.threads[0], record.threads[1]);
  EXPECT_NE(std::this_thread::get_id(), record.threads[0]);
  EXPECT_EQ("tstVexTimer", record.thread_name);
}

TEST_F(TimerTest, DoesNotFireBeforeItsTime) {
  Record record;
  Argument argument{&record, 0};
  const auto start = std::chrono::system_clock::now();
  Timer::Start(40, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
  EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::milliseconds(40));
}

TEST_F(TimerTest, AnyUseStartsTheServiceAndItIsOneObject) {
  Timer* const instance = Timer::GetInstance();
  ASSERT_NE(nullptr, instance);
  Timer::InitializeManager();
  EXPECT_EQ(instance, Timer::GetInstance());
  EXPECT_EQ(1, Timer::Start(kNever, &FailTheTest, nullptr));
  EXPECT_EQ(instance, Timer::GetInstance());
}

TEST_F(TimerTest, ConstructionIsLogged) {
  vex_test::LogCapture log;
  Timer::InitializeManager();
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "Timer::Timer"));
  EXPECT_EQ("timer.cpp", log.Lines().at(0).file);
}

TEST_F(TimerTest, CancelHandsTheArgumentBack) {
  int value = 0;
  void* arg = nullptr;
  Timer::Cancel(Timer::Start(kNever, &FailTheTest, &value), &arg);
  EXPECT_EQ(&value, arg);
}

TEST_F(TimerTest, CancelHandsANullArgumentBack) {
  int value = 0;
  void* arg = &value;
  Timer::Cancel(Timer::Start(kNever, &FailTheTest, nullptr), &arg);
  EXPECT_EQ(nullptr, arg);
}

TEST_F(TimerTest, CancelOfAnUnknownIdLeavesTheArgument) {
  Timer::InitializeManager();
  void* arg = nullptr;
  Timer::Cancel(4711, &arg);
  EXPECT_EQ(nullptr, arg);
  int value = 0;
  arg = &value;
  Timer::Cancel(4711, &arg);
  EXPECT_EQ(&value, arg);
  Timer::Cancel(4711, nullptr);
  Timer::Cancel(-1, nullptr);
}

TEST_F(TimerTest, SecondCancelFindsNothing) {
  int value = 0;
  const int id = Timer::Start(kNever, &FailTheTest, &value);
  Timer::Cancel(id, nullptr);
  void* arg = nullptr;
  Timer::Cancel(id, &arg);
  EXPECT_EQ(nullptr, arg);
}

TEST_F(TimerTest, CancelAfterExpiryLeavesTheArgument) {
  Record record;
  Argument argument{&record, 0};
  const int id = Timer::Start(0, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
  void* arg = nullptr;
  Timer::Cancel(id, &arg);
  EXPECT_EQ(nullptr, arg);
}

TEST_F(TimerTest, CancelWithoutAServiceStartsNone) {
  const int before = vex_test::ThreadCount();
  void* arg = nullptr;
  Timer::Cancel(1, &arg);
  EXPECT_EQ(nullptr, arg);
  EXPECT_TRUE(vex_test::ThreadsBecome(before));
}

TEST_F(TimerTest, OnlyTheCancelledTimerIsSilent) {
  Record record;
  Argument arguments[] = {{&record, 0}, {&record, 1}, {&record, 2}};
  Gate gate;
  Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  Timer::Start(0, &Note, &arguments[0]);
  const int middle = Timer::Start(0, &Note, &arguments[1]);
  Timer::Start(0, &Note, &arguments[2]);
  Timer::Cancel(middle, nullptr);
  gate.Open();
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 2; }));
  EXPECT_THAT(record.Values(), ElementsAre(0, 2));
}

TEST_F(TimerTest, ExpiryDecidesTheOrderAndStartingItAmongEquals) {
  Record record;
  Argument arguments[] = {{&record, 0}, {&record, 1}, {&record, 2}, {&record, 3}};
  Gate gate;
  Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  // All are due once the gate opens.
  Timer::Start(300, &Note, &arguments[3]);
  Timer::Start(1, &Note, &arguments[0]);
  Timer::Start(5, &Note, &arguments[1]);
  Timer::Start(5, &Note, &arguments[2]);
  std::this_thread::sleep_for(std::chrono::milliseconds(320));
  gate.Open();
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 4; }));
  EXPECT_THAT(record.Values(), ElementsAre(0, 1, 2, 3));
}

TEST_F(TimerTest, EarlierTimerStartedLaterComesFirst) {
  Record record;
  Argument late{&record, 2};
  Argument early{&record, 1};
  Timer::Start(500, &Note, &late);
  Timer::Start(1, &Note, &early);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 2; }));
  EXPECT_THAT(record.Values(), ElementsAre(1, 2));
}

TEST_F(TimerTest, CancelledFirstTimerDoesNotHoldUpTheNext) {
  Record record;
  Argument argument{&record, 7};
  Gate gate;
  Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  const int first = Timer::Start(200, &FailTheTest, nullptr);
  Timer::Start(210, &Note, &argument);
  Timer::Cancel(first, nullptr);
  gate.Open();
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
}

TEST_F(TimerTest, CallbacksNeverOverlap) {
  static std::atomic<int> inside;
  static std::atomic<int> most;
  static std::atomic<int> done;
  inside = most = done = 0;
  const TimerCallback callback = [](int, void*) {
    const int now = ++inside;
    if (now > most) most = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    --inside;
    ++done;
  };
  for (int i = 0; i < 20; ++i) Timer::Start(i % 3, callback, nullptr);
  ASSERT_TRUE(WaitUntil([] { return done == 20; }));
  EXPECT_EQ(1, most);
}

TEST_F(TimerTest, ZeroDurationDoesNotFireInsideStart) {
  static std::atomic<int> on_own_thread;
  static std::atomic<int> done;
  static std::thread::id own;
  on_own_thread = done = 0;
  own = std::this_thread::get_id();
  const TimerCallback callback = [](int, void*) {
    if (std::this_thread::get_id() == own) ++on_own_thread;
    ++done;
  };
  for (int i = 0; i < 100; ++i) Timer::Start(0, callback, nullptr);
  ASSERT_TRUE(WaitUntil([] { return done == 100; }));
  EXPECT_EQ(0, on_own_thread);
}

TEST_F(TimerTest, NegativeDurationCountsAsZero) {
  Record record;
  Argument arguments[] = {{&record, 0}, {&record, 1}, {&record, 2}};
  Gate gate;
  Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  Timer::Start(0, &Note, &arguments[0]);
  Timer::Start(-1, &Note, &arguments[1]);
  Timer::Start(INT_MIN, &Note, &arguments[2]);
  gate.Open();
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 3; }));
  // Counted as zero, none of them overtakes one that was started before it.
  EXPECT_THAT(record.Values(), ElementsAre(0, 1, 2));
}

TEST_F(TimerTest, LongestDurationStaysPending) {
  int value = 0;
  const int id = Timer::Start(INT_MAX, &FailTheTest, &value);
  Record record;
  Argument argument{&record, 0};
  Timer::Start(1, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
  void* arg = nullptr;
  Timer::Cancel(id, &arg);
  EXPECT_EQ(&value, arg);
}

TEST_F(TimerTest, NullCallbackOnlyWritesALine) {
  vex_test::LogCapture log;
  Timer::Start(0, nullptr, nullptr);
  ASSERT_TRUE(WaitUntil(
      [&] { return log.Count(16, "VEX_CORE_UTILS", "timer_callback is NULL..!!") == 1; }));
}

TEST_F(TimerTest, CallbackMayCancelItself) {
  static std::atomic<void*> given_back;
  static std::atomic<bool> done;
  static int untouched;
  given_back = nullptr;
  done = false;
  const TimerCallback callback = [](int id, void*) {
    void* arg = &untouched;
    Timer::Cancel(id, &arg);
    given_back = arg;
    done = true;
  };
  Timer::Start(0, callback, nullptr);
  ASSERT_TRUE(WaitUntil([] { return done.load(); }));
  EXPECT_EQ(&untouched, given_back);
}

TEST_F(TimerTest, CallbackMayStartAndCancelOthers) {
  static std::atomic<int> other;
  static std::atomic<int> own;
  static std::atomic<int> next;
  static std::atomic<void*> given_back;
  static int value;
  own = next = 0;
  given_back = nullptr;
  other = Timer::Start(kNever, &FailTheTest, &value);
  const TimerCallback callback = [](int id, void*) {
    void* arg = nullptr;
    Timer::Cancel(other, &arg);
    given_back = arg;
    own = id;
    next = Timer::Start(
        0, [](int started, void*) { own = started; }, nullptr);
  };
  const int id = Timer::Start(0, callback, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return own == id + 1; }));
  EXPECT_EQ(id + 1, next);
  EXPECT_EQ(&value, given_back);
}

TEST_F(TimerTest, StartAndOtherCancelsDoNotWaitForARunningCallback) {
  Gate gate;
  Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  int value = 0;
  void* arg = nullptr;
  const int id = Timer::Start(0, &FailTheTest, &value);
  Timer::Cancel(id, &arg);
  Timer::Cancel(4711, nullptr);
  EXPECT_EQ(&value, arg);
  EXPECT_FALSE(gate.Left());
  gate.Open();
  Timer::TerminateManager();
}

TEST_F(TimerTest, CancelWaitsForItsOwnRunningCallback) {
  Gate gate;
  const int id = Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  std::atomic<bool> began{false};
  std::atomic<bool> returned{false};
  bool left_before = false;
  void* arg = nullptr;
  std::thread canceller([&] {
    began = true;
    Timer::Cancel(id, &arg);
    left_before = gate.Left();
    returned = true;
  });
  ASSERT_TRUE(WaitUntil([&] { return began.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(returned);
  gate.Open();
  canceller.join();
  EXPECT_TRUE(left_before);
  EXPECT_EQ(nullptr, arg);
}

TEST_F(TimerTest, TerminationDropsWhatIsPendingAndWaitsForWhatRuns) {
  Gate gate;
  for (int i = 0; i < 100; ++i) Timer::Start(kNever, &FailTheTest, nullptr);
  Timer::Start(0, &Gate::Pass, &gate);
  gate.WaitInside();
  // Due, but behind the one that runs.
  Timer::Start(0, &FailTheTest, nullptr);
  std::atomic<bool> returned{false};
  bool left_before = false;
  std::thread terminator([&] {
    pthread_setname_np(pthread_self(), "terminator");
    Timer::TerminateManager();
    left_before = gate.Left();
    returned = true;
  });
  ASSERT_TRUE(WaitUntil([] { return vex_test::IsAsleep("terminator"); }));
  EXPECT_FALSE(returned);
  gate.Open();
  terminator.join();
  EXPECT_TRUE(left_before);
}

TEST_F(TimerTest, CallbackMayStartWhileTheServiceEnds) {
  struct Ending {
    Gate gate;
    std::atomic<bool> terminating{false};
    int started = 0;
    void* given_back = nullptr;
  };
  static int value;
  Ending ending;
  const TimerCallback callback = [](int id, void* arg) {
    Ending* const shared = static_cast<Ending*>(arg);
    Gate::Pass(id, &shared->gate);
    shared->started = Timer::Start(0, &FailTheTest, &value);
    Timer::Cancel(shared->started, &shared->given_back);
  };
  const int id = Timer::Start(0, callback, &ending);
  ending.gate.WaitInside();
  std::thread terminator([&] {
    ending.terminating = true;
    Timer::TerminateManager();
  });
  ASSERT_TRUE(WaitUntil([&] { return ending.terminating.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ending.gate.Open();
  terminator.join();
  EXPECT_EQ(id + 1, ending.started);
  EXPECT_EQ(&value, ending.given_back);
}

TEST_F(TimerTest, CallbackMayEndTheService) {
  static std::atomic<bool> done;
  done = false;
  Timer::Start(
      0,
      [](int, void*) {
        Timer::TerminateManager();
        done = true;
      },
      nullptr);
  ASSERT_TRUE(WaitUntil([] { return done.load(); }));
  EXPECT_EQ(1, Timer::Start(kNever, &FailTheTest, nullptr));
}

// It waited for who waited for it.
TEST_F(TimerTest, RegressionCallbackMayEndAServiceThatIsEndingAlready) {
  const vex_test::Watchdog watchdog(60);
  struct Ending {
    Gate gate;
    std::atomic<bool> terminating{false};
    bool returned = false;
  };
  Ending ending;
  const TimerCallback callback = [](int id, void* arg) {
    Ending* const shared = static_cast<Ending*>(arg);
    Gate::Pass(id, &shared->gate);
    Timer::TerminateManager();
    shared->returned = true;
  };
  Timer::Start(0, callback, &ending);
  ending.gate.WaitInside();
  std::thread terminator([&] {
    ending.terminating = true;
    Timer::TerminateManager();
  });
  ASSERT_TRUE(WaitUntil([&] { return ending.terminating.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ending.gate.Open();
  terminator.join();
  EXPECT_TRUE(ending.returned);
}

// The wait gave way to an earlier one that found no memory, and nobody waited any more.
TEST_F(TimerTest, RegressionAStartWithoutMemoryHoldsUpNoOther) {
  std::atomic<bool> fired{false};
  const TimerCallback fire = [](int, void* arg) { *static_cast<std::atomic<bool>*>(arg) = true; };
  int nth = 0;
  for (bool failed = true; failed;) {
    fired = false;
    Timer::Start(100, fire, &fired);
    {
      const vex_test::FailAlloc fail(++nth);
      try {
        Timer::Start(
            10, [](int, void*) {}, nullptr);
      } catch (const std::bad_alloc&) {
      }
      failed = fail.Failed();
    }
    EXPECT_TRUE(WaitUntil([&] { return fired.load(); })) << nth;
  }
  EXPECT_GT(nth, 2);
}

TEST_F(TimerTest, CyclesLeaveNoThread) {
  const int before = vex_test::ThreadCount();
  for (int i = 0; i < 20; ++i) {
    Timer::InitializeManager();
    EXPECT_TRUE(vex_test::ThreadsBecome(before + 1));
    Timer::Start(kNever, &FailTheTest, nullptr);
    Timer::TerminateManager();
    EXPECT_TRUE(vex_test::ThreadsBecome(before));
  }
  Timer::TerminateManager();
}

TEST_F(TimerTest, ThrowingCallbackDoesNotEndTheThread) {
  vex_test::LogCapture log;
  Timer::Start(
      0, [](int, void*) { throw std::runtime_error("boom"); }, nullptr);
  Timer::Start(
      0, [](int, void*) { throw 7; }, nullptr);
  Record record;
  Argument argument{&record, 0};
  Timer::Start(0, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 1; }));
  EXPECT_EQ(1, log.Count("Exception in TimerExpired: boom"));
  EXPECT_EQ(1, log.Count("Unknown Exception in TimerExpired"));
}

double ProcessSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

TEST_F(TimerTest, TenThousandTimersAreCheapToStartAndCancel) {
  const double before = ProcessSeconds();
  std::vector<int> ids;
  for (int i = 0; i < 10000; ++i) ids.push_back(Timer::Start(kNever, &FailTheTest, nullptr));
  // In the order that a walk through a list likes least.
  for (auto id = ids.rbegin(); id != ids.rend(); ++id) {
    void* arg = &ids;
    Timer::Cancel(*id, &arg);
    EXPECT_EQ(nullptr, arg);
  }
  EXPECT_LT(ProcessSeconds() - before, vex_test::kLittleCpuTime);
}

TEST_F(TimerTest, TenThousandTimersAllFireInOrder) {
  Record record;
  std::vector<Argument> arguments;
  for (int i = 0; i < 10000; ++i) arguments.push_back(Argument{&record, i});
  for (Argument& argument : arguments) Timer::Start(10, &Note, &argument);
  ASSERT_TRUE(WaitUntil([&] { return record.size() == 10000; }));
  const std::vector<int> values = record.Values();
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(i, values[static_cast<std::size_t>(i)]);
}

TEST_F(TimerTest, ManyThreadsStartAndCancelAtOnce) {
  static std::atomic<int> fired;
  fired = 0;
  std::atomic<int> cancelled{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&cancelled, t] {
      for (int i = 0; i < 500; ++i) {
        static int value;
        const int id = Timer::Start((i + t) % 4, [](int, void*) { ++fired; }, &value);
        void* arg = nullptr;
        if (i % 2 == 0) Timer::Cancel(id, &arg);
        if (arg != nullptr) ++cancelled;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(WaitUntil([&] { return fired + cancelled == 4000; }));
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
