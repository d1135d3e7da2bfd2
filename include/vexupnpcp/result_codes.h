#ifndef VEXUPNPCP_RESULT_CODES_H_
#define VEXUPNPCP_RESULT_CODES_H_

namespace vex_upnp {

/// One name for every integer result of the C++ interfaces. 0 is success, 1 a generic failure; the
/// families follow. Functions with another convention (1 for success, bool) say so where they are
/// declared. The codes of the plain-function interface stand in errorcodes.h.
namespace result {

constexpr int kOk = 0;
constexpr int kFailure = 1;

// For the functions whose convention is 1 for success and 0 for failure.
constexpr int kYes = 1;
constexpr int kNo = 0;

// Framework controller.
constexpr int VX_FC_ALREADY_INITIALIZED = 100;
constexpr int VX_FC_UNINITIALIZED = 101;

// Streaming.
constexpr int kStreamingNotInitialized = 1000;
constexpr int kStreamingInitFailed = 1001;
constexpr int kStreamingTerminateFailed = 1002;
constexpr int kStreamingInvalidParams = 1003;
constexpr int kStreamingInvalidCallbacks = 1004;
constexpr int kStreamingNoInterface = 1005;
constexpr int kStreamingConnectFailed = 1006;
constexpr int kStreamingBindFailed = 1007;
constexpr int kStreamingInvalidPort = 1009;
constexpr int kStreamingNoServer = 1010;
constexpr int kStreamingNoSession = 1011;
constexpr int kStreamingOutOfMemory = 1012;

// Network layer.
constexpr int kConnectFailed = 2000;
constexpr int kNoSession = 2001;
constexpr int kSocketFailed = 2004;
constexpr int kSocketOptionFailed = 2005;
constexpr int kTcpStartFailed = 2005;
constexpr int kBindFailed = 2006;
constexpr int kNullListener = 2007;
constexpr int kNoNetworkInterface = 2008;
constexpr int kBadHttp = 2009;
constexpr int kNotInArpCache = 2010;
constexpr int kEmptyAddress = 2011;

// Discovery.
constexpr int kOutOfMemory = 2200;

// Utilities.
constexpr int kNoMemory = 3000;
constexpr int kBadInput = 3001;
constexpr int kEmptyText = 3002;
constexpr int kTimeUnavailable = 3003;

// XML documents.
constexpr int kMalformedDocument = 4001;

// Control and eventing.
constexpr int kNoUpperLayer = 5000;
constexpr int kRequestFailed = 5001;

}  // namespace result
}  // namespace vex_upnp

#endif  // VEXUPNPCP_RESULT_CODES_H_
