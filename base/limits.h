#ifndef VEXUPNPCP_BASE_LIMITS_H_
#define VEXUPNPCP_BASE_LIMITS_H_

#include <cstddef>
#include <cstdint>

namespace vex_upnp {
namespace limits {

// What input from a hostile network may cost the host. Every bound lies far above legitimate use.

// One read of a datagram server, an incoming or an outgoing session.
constexpr std::size_t kReceiveBuffer = 8192;
// Datagrams that a server reads before it lets the other servers of its thread have their turn.
constexpr int kDatagramsPerWakeUp = 32;
// With as many parsed ones waiting, servers read no more until some have been handled, or for so
// long: the kernel keeps what has not been read at less cost, and gives all of its memory back.
constexpr std::size_t kEasyDatagrams = 32;
constexpr int kReadingPauseMs = 10;
// A datagram's unfinished header, joined over datagrams.
constexpr std::size_t kPartialDatagramHeader = 64 * 1024;
// Parsed datagrams that wait for a thread.
constexpr std::size_t kQueuedDatagrams = 10000;
constexpr std::size_t kQueuedDatagramBytes = 16 * 1024 * 1024;
// Header of an HTTP answer, and of a request to the streaming server.
constexpr std::size_t kHttpHeaderBytes = 256 * 1024;
constexpr std::size_t kHttpHeaderLines = 1000;
// A request to the event server, header and body.
constexpr int kEventRequestBytes = 1048576;
// A chunk-size line, and its significant hexadecimal digits.
constexpr std::size_t kChunkSizeLine = 4 * 1024;
constexpr std::size_t kChunkSizeDigits = 8;
// Body of an answer on the control side.
constexpr std::uint64_t kControlBody = 8 * 1024 * 1024;
// What it may occupy, with the records of small pieces counted.
constexpr std::uint64_t kControlBodyCost = 2 * kControlBody;
// What all answers on the control side, and all requests to the event server, may hold together. A
// message that holds no more than a small one has its place whatever the others hold.
constexpr std::size_t kAnswersTogether = 64 * 1024 * 1024;
constexpr std::size_t kEventRequestsTogether = 32 * 1024 * 1024;
constexpr std::size_t kSmallMessage = 64 * 1024;
// Share of the soft descriptor limit that exchanges may take; above it one in so many, the oldest
// ones, are dropped.
constexpr double kSessionShare = 0.7;
constexpr unsigned kDroppedSessionsPart = 10;
// Share of the soft descriptor limit from which the event server closes its most silent connection,
// and a streaming server lets nobody in.
constexpr unsigned kDescriptorSharePercent = 85;
constexpr std::size_t kDescriptionRequests = 16384;
// What they may hold together. Each names its device and its address more than once.
constexpr std::size_t kDescriptionRequestBytes = 32 * 1024 * 1024;
constexpr std::size_t kListedDevices = 16384;
// What all devices that are or were listed may hold together as long as anybody holds them:
// descriptions, service descriptions and records.
constexpr std::size_t kHeldDeviceBytes = 256 * 1024 * 1024;
// Addresses probed at a time when devices that did not answer a search are checked: each takes a
// descriptor.
constexpr std::size_t kReachabilityBatch = 256;
// Threads that look after descriptions that did not come; more of them wait in line.
constexpr int kDescriptionWorkers = 8;
// Services of one device for which descriptions are asked.
constexpr std::size_t kServicesPerDevice = 1024;
// Tags and attributes of a device description, and the devices, services, icons and other fields
// that are made of it. A few bytes of text become a node or a record of a hundred times their size.
constexpr std::size_t kDescriptionTags = 524288;
constexpr std::size_t kDescriptionRecords = 131072;
// Attributes of one element above which look-ups go through an index.
constexpr std::size_t kAttributeIndexFrom = 32;
// A text whose character references are replaced.
constexpr std::size_t kUnescapedText = 16 * 1024 * 1024;
// Bytes looked at while references that make up one another are replaced one by one.
constexpr std::size_t kUnescapeWork = 256 * 1024 * 1024;
// Renewals that a device asks for at once: the third in a row and later ones are spaced.
constexpr int kImmediateRenewals = 2;
constexpr int kRenewalSpacingMs = 1000;
// Receive buffer asked for on SSDP sockets.
constexpr int kSsdpReceiveBuffer = 4 * 1024 * 1024;
// Interface entries seen in one scan, and by the look-up of a hardware address.
constexpr std::size_t kScannedInterfaces = 32;
constexpr std::size_t kArpInterfaces = 10;
// Stack of every thread of the library. Host callbacks run on them; the usual 8 MiB for each of
// some forty threads would take a tenth of a 32-bit address space.
constexpr std::size_t kThreadStack = 512 * 1024;

}  // namespace limits
}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_LIMITS_H_
