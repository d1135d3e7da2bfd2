#ifndef VEXUPNPCP_RESULT_CODES_H_
#define VEXUPNPCP_RESULT_CODES_H_

namespace vex_upnp {

/// One name for every integer result of the C++ interfaces. 0 is success, 1 a generic failure; the
/// families follow. Functions with another convention (1 for success, bool) say so where they are
/// declared. The codes of the plain-function interface stand in errorcodes.h.
namespace result {

// Success.
constexpr int kOk = 0;
// Anything that has no code of its own.
constexpr int kFailure = 1;

// For the functions whose convention is 1 for success and 0 for failure.
constexpr int kYes = 1;
constexpr int kNo = 0;

// Framework controller.
//
// It runs already: the framework or a profile.
constexpr int VX_FC_ALREADY_INITIALIZED = 100;
// It does not run, or was not started.
constexpr int VX_FC_UNINITIALIZED = 101;

// Streaming.
//
// There is no manager and none could be made.
constexpr int kStreamingNotInitialized = 1000;
// InitializeStreamingManager could not make one.
constexpr int kStreamingInitFailed = 1001;
// TerminateStreamingManager had none to end.
constexpr int kStreamingTerminateFailed = 1002;
// A null argument, a number out of range, a callback that is not set.
constexpr int kStreamingInvalidParams = 1003;
// A server without all of its callbacks; no exported function gives it.
constexpr int kStreamingInvalidCallbacks = 1004;
// No interface has the address.
constexpr int kStreamingNoInterface = 1005;
// There was no way to the server.
constexpr int kStreamingConnectFailed = 1006;
// A server could not be opened on its port or on one of those behind it.
constexpr int kStreamingBindFailed = 1007;
// A port above 65535 to connect to.
constexpr int kStreamingInvalidPort = 1009;
// There is no such server or configuration.
constexpr int kStreamingNoServer = 1010;
// There is no such session, or it has ended.
constexpr int kStreamingNoSession = 1011;
// An allocation failed.
constexpr int kStreamingOutOfMemory = 1012;

// Network layer.
//
// A bad address or port, no connection, or a datagram that could not be sent.
constexpr int kConnectFailed = 2000;
// No memory for a session.
constexpr int kNoSession = 2001;
// A socket could not be made, read or written.
constexpr int kSocketFailed = 2004;
// Hosts know one number for both of these: a socket took an option badly, or joined no group; a TCP
// server could not listen. No exported function gives it, ConfigureTCPServer tells kBindFailed.
constexpr int kSocketOptionFailed = 2005;
constexpr int kTcpStartFailed = 2005;
// A server could not be opened on its port.
constexpr int kBindFailed = 2006;
// A listener is null.
constexpr int kNullListener = 2007;
// No interface is active, or none faces the address.
constexpr int kNoNetworkInterface = 2008;
// An answer is no HTTP, or larger than any answer may be.
constexpr int kBadHttp = 2009;
// The kernel knows no hardware address for the peer.
constexpr int kNotInArpCache = 2010;
// An address is empty.
constexpr int kEmptyAddress = 2011;

// Discovery.
//
// An allocation failed, or a text of a description would have become too large.
constexpr int kOutOfMemory = 2200;

// Utilities.
//
// An allocation failed, or a text would have become too large.
constexpr int kNoMemory = 3000;
// An argument is empty or null that must not be.
constexpr int kBadInput = 3001;
// The text is empty, or there is none.
constexpr int kEmptyText = 3002;
// The clock could not be read or its time not be written.
constexpr int kTimeUnavailable = 3003;

// XML documents.
//
// A document that cannot be read, or a LOCATION.
constexpr int kMalformedDocument = 4001;

// Control and eventing.
//
// No listener was given, or there is no such subscription.
constexpr int kNoUpperLayer = 5000;
// A request could not be formed or sent, or control has ended.
constexpr int kRequestFailed = 5001;

}  // namespace result
}  // namespace vex_upnp

#endif  // VEXUPNPCP_RESULT_CODES_H_
