#ifndef VEXUPNPCP_TIMER_H_
#define VEXUPNPCP_TIMER_H_

#include <atomic>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/vexuncopyable.h>

namespace vex_upnp {
namespace utils {

class TimerService;

/// What a timer calls when it expires: the timer's id, and the `arg` that was given to Start, which
/// the callback now owns. Runs on the timer thread.
typedef void (*TimerCallback)(int id, void* arg);

/// One-shot timers by integer id, all served by one thread of the library.
///
/// Callbacks run on that thread, one at a time, in order of expiry; timers that expire at the same
/// time run in the order in which they were started. A callback may call Start and Cancel, holds no
/// lock of this class, and should be short: it delays the timers behind it. Times are taken on the
/// UTC clock, so a step of the system's time moves what is pending: it is noticed within 10 s.
///
/// All functions may be called from any thread.
class VEX_EXPORT Timer : public VEXUncopyable {
 public:
  /// Starts the service. Not needed before Start, which does it by itself, but it decides whose
  /// name the timer thread bears: the first three characters of the calling thread's.
  static void InitializeManager();

  /// Ends the service: pending timers are dropped without a call, and a callback that is running is
  /// waited for. Does nothing when there is no service. From inside a callback it does not wait.
  ///
  /// Pending `arg` pointers are not handed back: cancel the timers or release what their `arg`
  /// points to before. The service that is started next counts its ids from 1 again.
  static void TerminateManager();

  /// The service, started at the first call. Valid until TerminateManager. Throws std::bad_alloc
  /// when there is no memory for it.
  static Timer* GetInstance();

  /// Starts a timer that calls `callback` once.
  ///
  /// @param duration  Milliseconds from now. Zero and negative durations expire at once; even so,
  ///                  the callback never runs inside this call, but it may run before it returns.
  /// @param callback  Null starts a timer that only writes a line to the log.
  /// @param arg       Given to the callback, or back from Cancel; never touched. May be null.
  /// @return The timer's id. The first of a service is 1, and each is one higher than the last.
  /// Never waits for a running callback. Throws std::bad_alloc when there is no memory; then no
  /// timer was started.
  static int Start(int duration, TimerCallback callback, void* arg);

  /// Cancels a timer that is still pending; does nothing when there is none of that id.
  ///
  /// @param arg  Receives what was given to Start when the timer was pending, and keeps its value
  ///             when not. May be null. Whoever sets it to null before learns from it who owns what
  ///             a non-null `arg` points to: if it came back, the callback will never run and the
  ///             caller releases it; if not, the callback has it.
  /// Waits while the callback of this very timer is running on the timer thread, and so must not be
  /// called with a lock held that this callback takes. From inside a callback it never waits.
  static void Cancel(int id, void** arg);

 private:
  Timer();
  ~Timer() override;

  static boost::shared_ptr<TimerService> ExistingService();

  const boost::shared_ptr<TimerService> service_;

  static std::atomic<Timer*> instance_;
  // Serialises the making and the ending of the instance. Outer to all other locks of the timer.
  // Never destroyed: timers may still be started while the process exits.
  static boost::mutex& timer_mutex_;
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_TIMER_H_
