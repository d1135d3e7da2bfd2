#ifndef VEXUPNPCP_HTTPPARSER_H_
#define VEXUPNPCP_HTTPPARSER_H_

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/httpinfo.h>

namespace vex_upnp {
namespace utils {

/// Turns received bytes into an HTTPInfo, in whatever pieces they arrive; the result does not
/// depend on where they were cut. All state between two calls is in the HTTPInfo.
///
/// It is lenient where a message is merely odd and fails where its framing cannot be trusted.
/// From the kind of message it decides whether a body follows at all: none behind GET, HEAD,
/// SUBSCRIBE, UNSUBSCRIBE and M-SEARCH, behind a NOTIFY with NTS "ssdp:alive" or "ssdp:byebye", and
/// behind a response with a USN header (a search answer, UPnP Device Architecture 1.1, 1.3.3).
///
/// One message at a time: what a buffer holds behind the end of a message is dropped. Neither the
/// header nor the body has a limit here; whoever feeds the parser looks at the sizes of the
/// HTTPInfo between two calls. Only a chunk-size line has one: 4 KiB and 32 bits of size.
class VEX_EXPORT HTTPParser {
 public:
  /// Takes up the next bytes of a message.
  ///
  /// Before each further call on the same message, HTTPInfo::SetParsingStatus is called with
  /// PARSING_CONTINUE; before the next message on the same object, HTTPInfo::CleanInfo.
  ///
  /// @param data    The bytes, which are copied as far as they are needed.
  /// @param length  Their number.
  /// @param info    The message; owned by the caller.
  /// @return result::kOk when there is no fault so far, which says nothing of completeness: that is
  ///         told by HTTPInfo::GetState. result::kFailure for a fault of the message or of the
  ///         parameters and result::kNoMemory when there is no room for a chunk-size line: the
  ///         message is lost.
  /// Any thread, one at a time for one message. Nothing is called back, nothing is thrown.
  static int Parse(const void* data, const unsigned int& length, boost::shared_ptr<HTTPInfo>& info);

 private:
  struct Bytes;

  VEX_LOCAL static int ParseBuffer(const Bytes& buffer, HTTPInfo& info);
  VEX_LOCAL static int HandleHeader(const Bytes& buffer, HTTPInfo& info);
  VEX_LOCAL static bool TakeUpHeader(const Bytes& buffer, HTTPInfo& info,
                                     unsigned int& header_part);
  VEX_LOCAL static int HandleFirstLine(const Bytes& buffer, unsigned int header_part,
                                       HTTPInfo& info);
  VEX_LOCAL static int ParseHTTPRequestLine(HTTPInfo& info);
  VEX_LOCAL static int ParseHTTPStatusLine(HTTPInfo& info);
  VEX_LOCAL static int ParseHTTPHeader(const Bytes& buffer, unsigned int header_part,
                                       HTTPInfo& info);
  VEX_LOCAL static int StoreHeaders(HTTPInfo& info);
  VEX_LOCAL static int StoreHeader(const HTTPInfo::Span& line, HTTPInfo& info,
                                   unsigned int& stray_lines);
  VEX_LOCAL static void GetEncodingType(HTTPInfo& info);
  VEX_LOCAL static int HandleBody(const Bytes& buffer, HTTPInfo& info);
  VEX_LOCAL static int ParseChunkedHTTPBody(const Bytes& buffer, HTTPInfo& info);
  VEX_LOCAL static int StoreChunkedData(Bytes rest, HTTPInfo& info);
  VEX_LOCAL static int FindChunkLength(const Bytes& rest, HTTPInfo& info, unsigned int& consumed,
                                       unsigned int& chunk_length);
  VEX_LOCAL static int HoldSizeLine(const Bytes& part, HTTPInfo& info);
  VEX_LOCAL static int CheckEndOfData(const Bytes& rest, unsigned int chunk_length, HTTPInfo& info);
  VEX_LOCAL static int CopyRemainingData(const Bytes& rest, HTTPInfo& info);
  VEX_LOCAL static int Fail(HTTPInfo& info);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_HTTPPARSER_H_
