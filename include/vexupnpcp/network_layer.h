#ifndef VEXUPNPCP_NETWORK_LAYER_H_
#define VEXUPNPCP_NETWORK_LAYER_H_

#include <list>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/network_listeners.h>
#include <vexupnpcp/network_types.h>

namespace vex_upnp {
namespace network_layer {

// What holds for all functions here:
// 1. Order: InitializeNetworkLayer, StartNetworkLayer, any of the others, StopNetworkLayer,
//    TerminateNetworkLayer. Outside of that each gives result::kFailure and does nothing.
// 2. They may be called from any thread, also from inside a listener, save for the four of the
//    layer's life, which one thread calls. None throws.
// 3. 0 (result::kOk) is success where nothing else is said. For want of memory any of them may give
//    result::kFailure, or result::kNoSession where that is named. Outputs are written only where
//    that is promised; strings passed in are copied.
// 4. Addresses are IPv4 in dotted decimal.

/// Makes the layer's singletons; no thread that sends or receives runs yet.
///
/// @return result::kOk; result::kFailure without memory.
VEX_EXPORT int InitializeNetworkLayer();

/// Starts the threads for callbacks, servers and requests. Needs InitializeNetworkLayer.
///
/// @return result::kOk; result::kFailure when a singleton is missing, with what comes before it
///         started.
VEX_EXPORT int StartNetworkLayer();

/// Ends all requests and servers and joins their threads, then those of callbacks. Requesters of
/// what is still open hear nothing. It may be started again.
///
/// @return result::kOk.
/// Waits for listeners that are running, so it must not be called with a lock held that one takes.
VEX_EXPORT int StopNetworkLayer();

/// Takes the singletons away. Needs StopNetworkLayer.
///
/// @return result::kOk.
VEX_EXPORT int TerminateNetworkLayer();

/// Opens a TCP server (GENA events) on each active interface, now and as interfaces come, or closes
/// them.
///
/// @param port    Asked for; a server climbs to a higher one where it is taken.
/// @param enable  false closes the servers that were asked for with this port.
/// @return result::kOk, also with no active interface; result::kBindFailed when one did not start,
///         and the interfaces behind it are then without.
VEX_EXPORT int ConfigureTCPServer(const int& port, const bool& enable);

/// The same for UDP servers, which receive the answers to searches. An interface on which the
/// server does not start is passed over.
///
/// @return result::kOk.
VEX_EXPORT int ConfigureUDPServer(const int& port, const bool& enable);

/// The same for servers of the SSDP group 239.255.255.250 (UPnP Device Architecture 1.1, 1.1).
///
/// @param port  1900 for SSDP.
/// @return result::kOk.
VEX_EXPORT int ConfigureUPnPMulticastServer(const int& port, const bool& enable);

/// The same for servers of any group.
///
/// @param group  A multicast address.
/// @return result::kOk.
VEX_EXPORT int ConfigureMulticastServer(const std::string& group, const int& port,
                                        const bool& enable);

/// Stops or starts all datagram servers and the sending of multicasts. TCP is left alone.
///
/// @return result::kOk.
VEX_EXPORT int ConfigureMulticastSupport(bool enable);

/// The TCP servers that run, one entry for each interface.
///
/// @param list  Appended to; the entries are copies.
/// @return result::kOk; result::kFailure when there are none.
VEX_EXPORT int GetConfiguredTcpPorts(std::list<boost::shared_ptr<IpInfo>>& list);

/// Answers a TCP request and returns at once.
///
/// @param data             From `new`. The layer's own on success, the caller's still on failure.
///                         Null ends the connection without an answer.
/// @param length           How many of its bytes to send, at most.
/// @param session_context  From OnTCPRequestReceived; used up whatever the result.
/// @return result::kOk, also when the peer has gone and the answer is dropped; result::kFailure for
///         a null context or null data.
VEX_EXPORT int SendResponsePacket(std::string* data, const int& length, void* session_context);

/// Answers a TCP request and returns when the answer has been written.
///
/// @param data             Read during the call only.
/// @param length           How many of its bytes to send, at most.
/// @param session_context  From OnTCPRequestReceived; used up whatever the result.
/// @return result::kOk when it has been written; result::kSocketFailed when not; result::kFailure
///         for a null context.
VEX_EXPORT int SendSyncResponsePacket(const std::string& data, const int& length,
                                      void* session_context);

/// Answers a TCP request with raw bytes and returns at once.
///
/// @param data             From `malloc`. On success the layer's, which gives it back by `free`; on
///                         failure the caller's still. Not null.
/// @param length           How many of its bytes to send.
/// @param session_context  From OnTCPRequestReceived; used up whatever the result.
/// @return As SendResponsePacket.
VEX_EXPORT int SendBinaryResponsePacket(char* data, const int& length, void* session_context);

/// Sends a datagram to port 1900 of a group.
///
/// It comes from the port of the UDP server on the interface, so that answers reach that server,
/// else from a port between 3955 and 4004 where one is free.
///
/// @param ip            The group.
/// @param interface_ip  Local address, or "0.0.0.0" for every active interface.
/// @param data          The datagram.
/// @param length        Not looked at: all of `data` is sent.
/// @return result::kOk; result::kFailure while multicast is disabled; result::kNoNetworkInterface
///         when none is active; result::kConnectFailed when it could not be sent. With several
///         interfaces the last one's result counts.
VEX_EXPORT int SendMulticastPacket(const std::string& ip, const std::string& interface_ip,
                                   const std::string& data, const int& length);

/// Sends a datagram.
///
/// @param ip      The receiver; an address, no name.
/// @param port    0 to 65535.
/// @param data    The datagram.
/// @param length  Not looked at: all of `data` is sent.
/// @return result::kOk; result::kConnectFailed for a bad address and when it could not be sent.
VEX_EXPORT int SendUDPPacket(const std::string& ip, const int& port, const std::string& data,
                             const int& length);

/// Sends an HTTP request over a connection of its own; the answer comes once through the listener,
/// or not at all.
///
/// The listener hears a complete answer; what had arrived when the peer closed, complete or not;
/// or a made-up answer 500 with UPnP fault 501 when the connection broke while it was waited for.
/// It hears nothing when the connection or the write failed, when the answer is no HTTP or larger
/// than any device's (256 KiB or 1,000 lines of header, 8 MiB of body), when it was not complete 30
/// seconds after the request was written, and after CancelTCPHTTPPacket: keep a timer.
///
/// @param ip          The receiver. A name is resolved first: on the caller's thread, but without
///                    waiting when that is a thread of the library; a name that is unknown is then
///                    like a connection that failed.
/// @param port        0 to 65535.
/// @param data        The whole request, header and body.
/// @param length      Not looked at: all of `data` is sent.
/// @param listener    Kept until the exchange has ended; null when nobody wants the answer.
/// @param session_id  Receives the exchange's id, above 0, before it starts: the answer may come
///                    before this call returns.
/// @return result::kOk when the connection is under way; result::kConnectFailed for a bad address
///         or port and without a socket; result::kNoSession without memory; result::kFailure
///         outside the layer's life.
/// Called back on a "VexTcpRes" thread, from which everything here may be called. When very many
/// exchanges are open (seven tenths of the descriptor limit) the oldest are dropped in silence.
VEX_EXPORT int SendTCPHTTPPacket(const std::string& ip, const int& port, const std::string& data,
                                 const int& length,
                                 const boost::shared_ptr<ResponseListener>& listener,
                                 int& session_id);

/// Gives up an exchange. Its listener is not called any more, but a call that has begun goes on.
///
/// @return result::kOk; result::kFailure for an id below 1 and when the exchange has ended.
VEX_EXPORT int CancelTCPHTTPPacket(const int& session_id);

/// Sends an HTTP request and blocks until the peer closes the connection or the time is up. A peer
/// that keeps its connection open is waited for to the end of the time, so look at the answer
/// whatever the result.
///
/// @param ip        The receiver, address or name.
/// @param port      0 to 65535.
/// @param data      The whole request, header and body.
/// @param length    Not looked at: all of `data` is sent.
/// @param response  A message to parse into; not null. Holds what has come.
/// @param timeout   Milliseconds for connection, request and answer together. The look-up of a name
///                  takes what it takes.
/// @return result::kOk when the peer has closed; result::kConnectFailed, also when the time was up
///         before there was a connection; result::kSocketFailed when writing or reading failed or
///         the time was up; result::kBadHttp when the answer is no HTTP or larger than
///         SendTCPHTTPPacket takes; result::kNoSession without memory.
/// Not from a callback of timer.h: one thread serves all timers, so the time would never be up.
VEX_EXPORT int SendSyncTCPPacket(const std::string& ip, const int& port, const std::string& data,
                                 const int& length, boost::shared_ptr<utils::HTTPInfo>& response,
                                 int timeout);

/// Registers for TCP requests whose start line and header hold all tokens of one of the patterns,
/// wherever they stand and in whatever case. The listener registered first wins.
///
/// @param patterns  Not empty; each a list of tokens with commas between them.
/// @param listener  Not null; kept until UnRegisterRequestListener.
/// @param id        Receives the registration's id, or -1.
/// @return result::kOk; result::kFailure.
/// Called back on a "VexTcpReq" thread, with a session context that must be answered.
VEX_EXPORT int RegisterTCPRequestListener(std::vector<std::string> patterns,
                                          boost::shared_ptr<TCPRequestListener> listener, int& id);

/// The same for datagrams, called back on a "VexUdpReq" thread.
VEX_EXPORT int RegisterUDPRequestListener(std::vector<std::string> patterns,
                                          boost::shared_ptr<UDPRequestListener> listener, int& id);

/// Ends a registration for TCP requests or datagrams. A call that is running is not waited for.
///
/// @return result::kOk; result::kFailure for an id that is not registered.
VEX_EXPORT int UnRegisterRequestListener(const int& id);

/// Whether an address is this machine's: "127.0.0.1", or that of an interface that is up.
VEX_EXPORT bool IsLocalMachine(const std::string& ip);

/// Whether an interface that is up has exactly this address and a name that begins with `name`.
VEX_EXPORT bool IsInterfaceExisting(const std::string& ip, const std::string& name);

/// Whether two addresses agree under a mask. An address that begins with "127." is on the subnet of
/// everything.
///
/// @param mask  The mask. An empty one is filled: with the first mask of an interface under which
///              the two agree, whatever that interface's own address, else with the last one tried.
/// @return false also for an empty address and for one of fewer than four numbers.
VEX_EXPORT bool IsSameSubnet(const std::string& ip1, const std::string& ip2, std::string& mask);

/// The local address of the first active interface on whose subnet a peer is.
///
/// @param local_ip  Written on success only.
/// @return result::kOk; result::kNoNetworkInterface when there is none; result::kFailure without
///         memory.
VEX_EXPORT int GetOutgoingIPaddress(const std::string& peer_ip, std::string& local_ip);

/// The hardware address of a peer, from the kernel's ARP cache; nothing is sent, so a peer that was
/// not in contact of late is not found. The first ten interfaces are asked.
///
/// @param mac  Written on success only: "00-1A-2B-3C-4D-5E".
/// @return result::kOk; result::kEmptyAddress; result::kSocketFailed, also for a bad address;
///         result::kNotInArpCache; result::kFailure without memory.
VEX_EXPORT int GetMacAddress(const std::string& ip, std::string& mac);

/// Tries a TCP connection to each of several addresses at once. Takes the whole time, whatever the
/// answers, unless it is stopped.
///
/// @param addresses  By any key; no entry null. `valid` of each is written when the time is up.
/// @param timeout    Seconds.
/// @param lock       Held by the caller, and again on return; released while waiting.
/// @param condition  Notified by whoever sets `stop`.
/// @param stop       Set to true, under the mutex of `lock`, to end the wait.
/// @return result::kOk; result::kFailure when stopped; result::kNoSession without memory.
VEX_EXPORT int IsReachable(std::map<std::string, boost::shared_ptr<valid_address_info>>& addresses,
                           int timeout, boost::unique_lock<boost::mutex>& lock,
                           boost::condition_variable& condition, bool& stop);

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_NETWORK_LAYER_H_
