#ifndef VEXUPNPCP_STREAMING_H_
#define VEXUPNPCP_STREAMING_H_

#include <vexupnpcp/export.h>
#include <vexupnpcp/streaming_types.h>

/// A plain HTTP transport for media, apart from the UPnP control traffic. What holds for all of its
/// functions:
///
/// 1. Start and stop. `InitializeStreamingManager` takes a reference, `TerminateStreamingManager`
///    gives one back; the control point profile takes one of its own while it runs. Every function
///    works without a reference too: the manager is built at its first use. It needs the framework
///    to be initialised to hear of interface changes.
/// 2. Strings and lists. Texts are NUL-terminated. Lists are linked through `next` and end in null;
///    an empty list is a null pointer.
/// 3. Memory. What is passed in stays the caller's and is read during the call only. What a
/// function
///    gives out is the caller's and goes back by the Free function that its comment names; all Free
///    functions accept null.
/// 4. Threads. The functions may be called from any thread.
/// 5. Results are the `kStreaming...` constants of result_codes.h, 0 for success. Nothing throws.
namespace vex_upnp {
namespace streaming {

/// Takes a reference on the streaming manager, building it if there is none.
///
/// @return 0; kStreamingInitFailed when the manager could not be made.
VEX_EXPORT int InitializeStreamingManager();

/// Gives a reference back and ends the manager when none is left.
///
/// The reference that brings the count to exactly 0 stops everything that streams. A call without a
/// reference to give back is counted all the same: it ends the manager, and the next
/// `InitializeStreamingManager` only makes up for it.
/// @return 0; kStreamingTerminateFailed when there is no manager and none could be made.
VEX_EXPORT int TerminateStreamingManager();

/// Lists the sessions that stream now: those of clients first, then the peers of all servers.
///
/// @param sessions  Receives the list, null when nothing streams; released with FreeRunningSession.
///                  Not null. Written on success only.
/// @return 0; kStreamingInvalidParams for a null argument; kFailure when there is no manager or no
///         memory.
VEX_EXPORT int GetRunningSessionInfo(stRunningSession** sessions);

/// Releases a list from GetRunningSessionInfo.
///
/// @param sessions  The head of the list; null is ignored.
VEX_EXPORT void FreeRunningSession(stRunningSession* sessions);

}  // namespace streaming
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STREAMING_H_
