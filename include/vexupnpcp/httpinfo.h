#ifndef VEXUPNPCP_HTTPINFO_H_
#define VEXUPNPCP_HTTPINFO_H_

#include <memory>
#include <string>
#include <vector>

#include <vexupnpcp/export.h>
#include <vexupnpcp/vexuncopyable.h>

namespace vex_upnp {
namespace utils {

/// Method of a request (RFC 9110; UPnP Device Architecture for the last four).
enum HTTPRequest : int {
  HTTP_GET = 0,
  HTTP_HEAD = 1,
  HTTP_POST = 2,
  HTTP_NOTIFY = 3,
  HTTP_SUBSCRIBE = 4,
  HTTP_UNSUBSCRIBE = 5,
  HTTP_MSEARCH = 6,
  /// Any other method, and a response.
  HTTP_UNKNOWN_REQUEST = 7
};

/// How the body of a message is delimited.
enum EncodingType : int {
  /// Not known: the message is refused when its header ends so.
  ENC_UNIDENTIFIED = 0,
  /// The message ends with its header.
  ENC_NO_BODY = 1,
  /// As many bytes follow as Content-Length says.
  ENC_CONTENT_LENGTH = 2,
  /// Chunked transfer coding (RFC 9112, 7.1).
  ENC_CHUNKED = 3,
  /// The body runs until the peer closes; the parser never declares it complete.
  ENC_UNTIL_CLOSE = 4
};

/// Whether the parser may go on with the current buffer or has handed it back: used up, message
/// finished or message failed. Which of these it was is told by HTTPInfo::GetState.
enum ParsingStatus : int { PARSING_CONTINUE = 0, PARSING_RETURN = 1 };

/// Transport of an exchange.
enum Protocol : int { PROTOCOL_TCP = 1, PROTOCOL_UDP = 2 };

/// What HTTPInfo::GetStatus gives: how far the header is parsed.
enum HeaderProgress : int { HEADER_NOTHING = 0, HEADER_START_LINE = 1, HEADER_COMPLETE = 2 };

/// What HTTPInfo::GetState gives.
enum MessageState : int { MESSAGE_INCOMPLETE = 0, MESSAGE_COMPLETE = 1, MESSAGE_FAILED = 2 };

/// One header field. The name is in its received case; both texts are trimmed when they come from
/// the parser.
struct NameValue {
  std::string name;
  std::string value;
};

/// The reason phrase of a status code. A code without one of its own gets the phrase of its
/// hundred ("OK" for 299), any other "UNKNOWN".
///
/// @return A constant text, never null. Any thread.
VEX_EXPORT const char* GetStatusString(unsigned int code);

/// The text of a method; "UNKNOWN" for HTTP_UNKNOWN_REQUEST and any value outside the list.
///
/// @return A constant text, never null. Any thread.
VEX_EXPORT const char* GetRequestString(HTTPRequest request);

/// The method of a text, compared exactly: "get" is HTTP_UNKNOWN_REQUEST. Any thread.
VEX_EXPORT HTTPRequest GetRequestType(const std::string& method);

/// One HTTP-shaped message (SSDP, GENA, SOAP, descriptions, media) and at once the resumable state
/// of HTTPParser::Parse: an incomplete message is an HTTPInfo that knows where the parser stopped.
///
/// Held by boost::shared_ptr. There is no lock: one thread at a time fills it, then it is handed
/// over. Nothing calls back and nothing throws: what cannot be done without memory is logged and
/// left undone. Results are result::kOk and result::kFailure where nothing else is said; outputs
/// are assigned, not appended, and stay untouched on failure.
class VEX_EXPORT HTTPInfo : public VEXUncopyable {
 public:
  /// An empty message, of which nothing has been received.
  HTTPInfo();
  ~HTTPInfo() override;

  /// Copies the start line, without its line end unless FormatStartLine has rewritten it.
  ///
  /// @return result::kFailure when there is none yet.
  int GetStartLine(std::string& start_line);

  /// The value of the first header of a name, which is compared without regard to case.
  ///
  /// @param name  Not null, not empty.
  /// @return result::kFailure for a bad name and when there is no such header.
  int GetHeaderValue(const char* name, std::string& value);

  /// Whether a text is free of NUL bytes.
  bool CheckStringValidity(const std::string& text) const;

  /// The value of Content-Length when the body is delimited by it, else 0.
  unsigned long long GetContentLength() const;

  /// How far the header is parsed; a HeaderProgress.
  int GetStatus() const;

  /// Whether the message is complete; a MessageState.
  int GetState() const;

  /// To be called with PARSING_CONTINUE between two calls of the parser.
  void SetParsingStatus(const ParsingStatus& status);
  ParsingStatus GetParsingStatus() const;

  /// The two numbers of the version: 1 and 1 for "HTTP/1.1".
  void GetHTTPVersion(int& major, int& minor) const;

  /// Copies the request target as it came.
  ///
  /// @return result::kOk; result::kEmptyText when there is none, as in every response;
  ///         result::kNoMemory.
  int GetURI(std::string& uri) const;

  /// Continues a chunk-size line of which the first part came in an earlier buffer.
  ///
  /// Takes the line to be ended by this buffer: at its first CR, or else at the buffer's end.
  ///
  /// @param data      The buffer; may be null when `length` is 0.
  /// @param length    Its bytes.
  /// @param consumed  Receives the bytes to step over, the line end included; that may be up to two
  ///                  more than the buffer has.
  /// @return The whole line, owned by this object and valid until its next change; null when no
  ///         line is waiting.
  const char* GetHex(const char* data, const unsigned int& length, unsigned int& consumed);

  /// Address of the peer, address of the local interface, port of the peer: kept for whoever
  /// handles the message, not used here.
  void SetClientIpAddress(const std::string& ip);
  void GetClientIpAddress(std::string& ip) const;
  void SetMyIpAddress(const std::string& ip);
  void GetMyIpAddress(std::string& ip) const;
  void SetClientPort(const int& port);
  void GetClientPort(int& port) const;

  /// HTTP_UNKNOWN_REQUEST for a response and for a method outside the list.
  HTTPRequest GetRequestType() const;

  /// 0 for a request.
  unsigned int GetStatusCode() const;

  /// false for a response, and before the start line has been looked at.
  bool IsRequest() const;

  /// Makes the object ready for the next message. The two addresses stay, the port goes to 0.
  void CleanInfo();

  /// Moves the body to the end of a text. A text that then holds a NUL byte, in the body or in
  /// front of it, becomes empty: readers of XML see no body rather than a cut one.
  ///
  /// @return result::kFailure without memory; text and body are then as they were.
  int ReadBody(std::string& body);

  /// Gives the list of headers, in order of arrival. Their records are made at the first call, so
  /// this is done before a message is shared between threads.
  ///
  /// @param headers  The records stay owned by this object and die with it or at CleanInfo.
  int GetHeader(std::vector<NameValue*>& headers);

  /// Writes the header out again: the start line of FormatStartLine, the headers in their order and
  /// received case, the blank line. The start line of this object changes with it, so this is done
  /// once, before a message is shared between threads.
  int GetHeader(std::string& header);

  /// Adds a piece of body. With ENC_CONTENT_LENGTH what goes beyond the length is dropped; behind a
  /// message without body everything is.
  ///
  /// @param data    Copied; may be null when `length` is 0.
  /// @param length  Its bytes.
  /// @return result::kFailure without memory, and the message has then failed.
  int StoreData(const char* data, const unsigned int& length);

  /// Adds a header at the end; an earlier one of the name stays and is still found first.
  ///
  /// @return result::kFailure for an empty name. Without memory the header is lost and the result
  ///         is result::kOk.
  int SetHeader(const std::string& name, const std::string& value);

  /// Bytes of body that are held: received and not yet handed out.
  unsigned long long GetProcessedBodySize() const;

  /// Hands out the body as one block from `malloc`, which the caller gives back by `free`. Each
  /// call gives what came since the last one; a single piece goes out without being copied.
  ///
  /// @param size  Receives the bytes of the block.
  /// @return The block, without NUL at its end. Null with a size of 0 when nothing is held; null
  ///         with another size without memory or when the block would exceed 32 bits, and the
  ///         pieces are kept.
  char* GetBody(unsigned int& size);

  /// Rebuilds the start line, CRLF included, from what was parsed: the status code's own phrase
  /// takes the place of the received one, and a method outside the list becomes "UNKNOWN".
  void FormatStartLine();

  /// What this message has cost so far, for budgets that are kept between two calls of the parser.
  /// All of these take constant time.
  ///
  /// Bytes of header taken up, start line and blank line included.
  unsigned long long GetRawHeaderSize() const;
  /// Headers stored; 0 until the header is complete.
  unsigned int GetHeaderCount() const;
  /// Bytes of body held, or what their records cost when that is more: a body that comes in reads
  /// of one byte takes many times its size.
  unsigned long long GetBodyCost() const;
  /// About what the whole object occupies.
  unsigned long long GetHeldSize() const;

 private:
  friend class HTTPParser;
  friend bool AdoptBlock(char* block, std::size_t size, HTTPInfo& info);
  friend bool HeaderFits(const HTTPInfo& info);

  struct VEX_LOCAL FreeBlock {
    void operator()(char* block) const;
  };
  struct DataLengthPair {
    std::unique_ptr<char, FreeBlock> data;
    unsigned int length;
  };
  // A piece of raw_header_, by position, so that growth of the text does no harm.
  struct Span {
    unsigned int begin = 0;
    unsigned int length = 0;
  };
  struct HeaderSpan {
    Span name;
    Span value;
  };

  // Reads start line and headers in place.
  struct HeaderView;

  VEX_LOCAL std::string FormattedStartLine() const;
  VEX_LOCAL void MakeRecords();
  VEX_LOCAL unsigned int LimitToEncoding(unsigned int length);
  VEX_LOCAL bool AppendPiece(const char* data, unsigned int length, unsigned int capacity);
  VEX_LOCAL bool AdoptData(char* block, unsigned int length);
  VEX_LOCAL int StoreChunk(const char* data, unsigned int length, unsigned int left_in_buffer);
  VEX_LOCAL void ClosePiece();
  VEX_LOCAL int FailForMemory();
  VEX_LOCAL char* JoinPieces(unsigned int size);
  VEX_LOCAL void DropBody();

  // All header bytes so far; cut behind the blank line once that is seen.
  std::string raw_header_;
  // The received start line; formatted_start_line_ wins over it when it is set.
  Span start_line_;
  std::string formatted_start_line_;
  std::string uri_;
  // Headers in order of arrival: first the records, then those that nobody asked a record of yet.
  std::vector<std::unique_ptr<NameValue>> headers_;
  std::vector<HeaderSpan> header_spans_;
  std::vector<DataLengthPair> body_pieces_;
  // A chunk-size line that was cut by the end of a buffer.
  std::string chunk_hex_;
  std::string client_ip_;
  std::string my_ip_;
  // Behind the header: body bytes counted against content_length_.
  unsigned long long processed_length_ = 0;
  unsigned long long content_length_ = 0;
  unsigned long long body_size_ = 0;
  HTTPRequest request_type_ = HTTP_UNKNOWN_REQUEST;
  unsigned int status_code_ = 0;
  int http_major_ = 0;
  int http_minor_ = 0;
  EncodingType encoding_ = ENC_UNIDENTIFIED;
  // Where the body begins in the current buffer; nonzero for one pass of the parser only.
  unsigned int body_offset_ = 0;
  // Bytes that the last piece's block has left, while the chunks of one buffer are gathered in it.
  unsigned int piece_room_ = 0;
  // Bytes of the CRLF behind a chunk that are still to be skipped.
  unsigned int chunk_crlf_pending_ = 0;
  // Bytes of the current chunk that have not arrived yet.
  unsigned int chunk_remaining_ = 0;
  int status_ = HEADER_NOTHING;
  int state_ = MESSAGE_INCOMPLETE;
  ParsingStatus parsing_status_ = PARSING_CONTINUE;
  int client_port_ = 0;
  bool is_request_ = false;
  bool header_ended_ = false;
  bool first_line_has_nul_ = false;
  // More header lines, with a colon or without one, than a message may have.
  bool has_too_many_lines_ = false;
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_HTTPINFO_H_
