#ifndef VEXUPNPCP_TIMER_H_
#define VEXUPNPCP_TIMER_H_

#include <vexupnpcp/export.h>
#include <vexupnpcp/vexuncopyable.h>

namespace vex_upnp {
namespace utils {

typedef void (*TimerCallback)(int id, void* arg);

class VEX_EXPORT Timer : public VEXUncopyable {
 public:
  static void InitializeManager();
  static void TerminateManager();
  static Timer* GetInstance();
  static int Start(int duration, TimerCallback callback, void* arg);
  static void Cancel(int id, void** arg);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_TIMER_H_
