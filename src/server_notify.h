#ifndef VEXUPNPCP_SRC_SERVER_NOTIFY_H_
#define VEXUPNPCP_SRC_SERVER_NOTIFY_H_

#include <string>

namespace vex_upnp {
namespace network_layer {

// What a session tells its owner, the server or the client manager that made it. Called on the
// session's own thread, with no lock of the session held.
class Notify {
 public:
  virtual ~Notify() = default;
  // The session has done its work, or has failed on its own account: let it go.
  virtual void SessionCompleted(const int& id) = 0;
  // The session has failed before it could do its work.
  virtual void HandleFailureCondition(const int& id) = 0;
};

// The common face of the servers in the list of ServerManager.
class ServerNotify : public Notify {
 public:
  // Opens the server on `port`, or on a port behind it where the server may climb; `port` then
  // tells which one. What is still open from an earlier start is closed first.
  virtual int Start(int& port) = 0;
  virtual std::string GetIP() = 0;
  virtual std::string GetInterfaceName() = 0;
  virtual int GetPort() = 0;
  virtual int Stop() = 0;
  // Lets go of everything: what is open is closed, and the object ends with its last reference.
  virtual void Reset() = 0;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_SERVER_NOTIFY_H_
