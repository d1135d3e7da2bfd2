#ifndef VEXUPNPCP_BASE_TIMING_H_
#define VEXUPNPCP_BASE_TIMING_H_

namespace vex_upnp {
namespace timing {

// Every duration of the library, in milliseconds unless its name says otherwise.

// How long a description, an action or an answer to an outgoing request may take.
constexpr int kDescriptionTimeoutMs = 30000;
constexpr int kActionTimeoutMs = 30000;
constexpr int kResponseTimeoutMs = 30000;
// From the search to the check of the devices that did not answer it.
constexpr int kRescanCheckMs = 5000;
// Global searches come at most once in this time.
constexpr int kGlobalRescanGuardMs = 120000;
constexpr int kAutoRescanMs = 60000;
constexpr int kRescanConnectTimeoutSeconds = 3;
// MX of a search, in seconds: devices spread their answers over it.
constexpr int kSearchMx = 4;
// What a SUBSCRIBE and a renewal ask for, in seconds.
constexpr int kSubscriptionSeconds = 1800;
// Renewal of a subscription, per cent of the granted time.
constexpr int kRenewalPercent = 75;
// Pause between two looks at a listener's use count during termination.
constexpr int kUseCountPollMs = 50;
constexpr int kInterfaceScanMs = 2000;
// Between "removed" and "address changed" of one interface.
constexpr int kAddressChangePauseMs = 500;
// How long an accept waits when the process has no descriptor left.
constexpr int kAcceptPauseMs = 100;
// How long a thread that can't go on without memory waits before it tries again.
constexpr int kMemoryRetryMs = 100;
// Pending timers notice a step of the system's time after so long, at the latest.
constexpr int kClockLookMs = 10000;
// How long a synchronous streaming client waits for its connection.
constexpr int kSyncConnectTimeoutMs = 5000;
// Between the last byte of a served payload and the close.
constexpr int kServedConnectionPauseMs = 20;
// How long an event with an unknown SID waits for a SUBSCRIBE answer in handling.
constexpr int kSubscribeAnswerWaitMs = 1000;

// The time that is really waited: 1:1 in the product; tests link another definition and shorten
// whole minutes to milliseconds.
int Scaled(int milliseconds);

}  // namespace timing
}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_TIMING_H_
