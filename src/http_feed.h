#ifndef VEXUPNPCP_SRC_HTTP_FEED_H_
#define VEXUPNPCP_SRC_HTTP_FEED_H_

#include <cstddef>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/httpinfo.h>

namespace vex_upnp {
namespace utils {

// Gives the bytes of one read to the parser and, when they are taken without fault, makes the
// message ready for the next read. The result is the parser's; after a fault the message is left as
// the fault left it. What counts as complete stays the caller's: a datagram is done with its
// header, a TCP message with state MESSAGE_COMPLETE. More of a message that cannot end is a fault.
//
// Not for the blocking read of a request, which looks at the parsing status itself.
int FeedParser(const char* data, std::size_t size, boost::shared_ptr<HTTPInfo>& info);

// Whether the parser has met a header line without a name. It goes through that header again with
// every further buffer, and keeps the buffers, for ever: whoever has more for such a message gives
// it up.
bool CannotEnd(const HTTPInfo& info);

// The same as FeedParser for a block from malloc, which the message takes over where it can do so
// without a copy: true, and the block is the message's. False when it has to be copied by
// FeedParser.
bool AdoptBlock(char* block, std::size_t size, HTTPInfo& info);

// Whether a header, complete or not, is within what a header may cost: its bytes, and its lines
// with a colon or without one. To be asked between two calls of the parser.
bool HeaderFits(const HTTPInfo& info);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_HTTP_FEED_H_
