#ifndef VEXUPNPCP_XMLPARSER_SRC_XML_SCANNER_H_
#define VEXUPNPCP_XMLPARSER_SRC_XML_SCANNER_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <vexupnpcp/embeddedxmlparser.h>

namespace vex_upnp {
namespace utils {

// The token reader behind EmXmlParser, with its position in fields of its own: a document is read
// with one of these, and DomParser gets the position back at the end.
class XmlScanner {
 public:
  explicit XmlScanner(DomParser& parser)
      : cursor_(parser.cursor),
        end_(parser.end),
        start_(parser.tokenStart),
        length_(parser.tokenLength),
        parser_(parser) {}
  XmlScanner(const XmlScanner&) = delete;
  XmlScanner& operator=(const XmlScanner&) = delete;
  ~XmlScanner() {
    parser_.cursor = cursor_;
    parser_.tokenStart = start_;
    parser_.tokenLength = static_cast<std::int32_t>(length_);
  }

  int NextToken();
  int NextToken2(char delimiter);
  int SkipSpaces();

  // Reads `text` and the `>` behind it, when they stand here; else moves nothing.
  bool TakeTagEnd(const char* text);

  bool AtEnd() const { return cursor_ >= end_; }
  bool AtNul() const { return *cursor_ == '\0'; }
  char* token_start() const { return start_; }
  std::ptrdiff_t token_length() const { return length_; }
  char* token_end() const { return start_ + length_; }
  void GoBackToTokenStart() { cursor_ = start_; }

 private:
  int Take(std::ptrdiff_t length, int token) {
    cursor_ += length;
    length_ = length;
    return token;
  }
  // Compares character by character up to the first difference; a NUL never equals.
  bool Follows(const char* text) const;
  int TakeMarkup();
  int TakeSpaces();
  int TakeRun();
  // Whether a marked character at `at` goes on with the run instead of ending it.
  bool StaysInRun(const char* at) const;
  bool Has(const char* at, char first, char second) const {
    return at + 2 < end_ && at[1] == first && at[2] == second;
  }

  char* cursor_;
  char* const end_;
  char* start_;
  std::ptrdiff_t length_;
  DomParser& parser_;
};

inline bool EmXmlParser::IsWhiteSpace(char character) {
  return character == ' ' || character == '\n' || character == '\t' || character == '\r' ||
         character == '\f';
}

inline bool XmlScanner::Follows(const char* text) const {
  const char* at = cursor_;
  for (; *text != '\0'; ++text, ++at) {
    if (at >= end_ || *at != *text) return false;
  }
  return true;
}

inline int XmlScanner::TakeMarkup() {
  if (cursor_ + 1 >= end_) return Take(1, kXmlTokenTagStart);
  switch (cursor_[1]) {
    case '/':
      return Take(2, kXmlTokenEndTagStart);
    case '?':
      return Take(2, kXmlTokenInstructionStart);
    case '!':
      if (Follows("<!--")) return Take(4, kXmlTokenCommentStart);
      if (Follows("<![CDATA[")) return Take(9, kXmlTokenCdataStart);
      ++cursor_;
      return kXmlTokenDeclaration;
    default:
      return Take(1, kXmlTokenTagStart);
  }
}

inline int XmlScanner::TakeSpaces() {
  while (cursor_ < end_ && EmXmlParser::IsWhiteSpace(*cursor_)) ++cursor_;
  length_ = 1;
  return kXmlTokenSpace;
}

inline bool XmlScanner::StaysInRun(const char* at) const {
  switch (*at) {
    case '/':
    case '?':
      return at + 1 >= end_ || at[1] != '>';
    case '-':
      return !Has(at, '-', '>');
    case ']':
      return !Has(at, ']', '>');
    default:
      return false;
  }
}

inline int XmlScanner::TakeRun() {
  // The first character belongs to the run even when it is a marked one, or nothing would move.
  char* at = cursor_ + 1;
  const auto goes_on = [this](const char* next) {
    return EmXmlParser::ends_run_[static_cast<unsigned char>(*next)] == 0 ||
           (*next != '\0' && StaysInRun(next));
  };
  while (at < end_ && goes_on(at)) ++at;
  cursor_ = at;
  length_ = at - start_;
  return at < end_ && *at != '\0' ? kXmlTokenText : kXmlTokenEnd;
}

inline int XmlScanner::NextToken() {
  start_ = cursor_;
  length_ = 0;
  if (cursor_ >= end_) return kXmlTokenEnd;
  switch (*cursor_) {
    case '\0':
      return kXmlTokenEnd;
    case '<':
      return TakeMarkup();
    case '>':
      return Take(1, kXmlTokenTagEnd);
    case '=':
      return Take(1, kXmlTokenEqual);
    case '"':
      return Take(1, kXmlTokenDoubleQuote);
    case '\'':
      return Take(1, kXmlTokenSingleQuote);
    case '/':
      if (Follows("/>")) return Take(2, kXmlTokenEmptyTagEnd);
      return TakeRun();
    case '?':
      if (Follows("?>")) return Take(2, kXmlTokenInstructionEnd);
      return TakeRun();
    case '-':
      if (Follows("-->")) return Take(3, kXmlTokenCommentEnd);
      return TakeRun();
    case ']':
      if (Follows("]]>")) return Take(3, kXmlTokenCdataEnd);
      return TakeRun();
    default:
      return EmXmlParser::IsWhiteSpace(*cursor_) ? TakeSpaces() : TakeRun();
  }
}

inline int XmlScanner::NextToken2(char delimiter) {
  start_ = cursor_;
  length_ = 0;
  if (cursor_ >= end_ || *cursor_ == '\0') return kXmlTokenEnd;
  if (*cursor_ == delimiter) return 0;
  char* const second = cursor_ + 1;
  char* at = second;
  for (;;) {
    at = static_cast<char*>(std::memchr(at, delimiter, static_cast<std::size_t>(end_ - at)));
    if (at == nullptr) {
      cursor_ = end_;
      return kXmlTokenEnd;
    }
    // KEPT: a backslash protects the delimiter behind it, except as the first character.
    if (at == second || at[-1] != '\\') break;
    ++at;
  }
  cursor_ = at;
  length_ = at - start_;
  for (const char* character = start_; character < at; ++character) {
    if (!EmXmlParser::IsWhiteSpace(*character)) return kXmlTokenText;
  }
  return kXmlTokenSpace;
}

inline int XmlScanner::SkipSpaces() {
  int token = NextToken();
  while (token == kXmlTokenSpace) token = NextToken();
  return token;
}

inline bool XmlScanner::TakeTagEnd(const char* text) {
  char* at = cursor_;
  while (at < end_ && *text != '\0' && *at == *text) {
    ++at;
    ++text;
  }
  if (at >= end_ || *text != '\0' || *at != '>' || at == cursor_) return false;
  // As a token such a name might end in front of its last character.
  const char last = at[-1];
  if (last == '/' || last == '?' || last == '-' || last == ']') return false;
  cursor_ = at + 1;
  return true;
}

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSER_SRC_XML_SCANNER_H_
