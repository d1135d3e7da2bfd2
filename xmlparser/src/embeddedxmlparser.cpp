#include <vexupnpcp/embeddedxmlparser.h>

#include "base/log.h"
#include "xmlparser/src/dom_node_pool.h"
#include "xmlparser/src/xml_scanner.h"

namespace vex_upnp {
namespace utils {

namespace {

constexpr const char* kTag = log::kTagUtils;
constexpr char kMarkedCharacters[] = "<\"'>=\n\t\r\f ?/!-[]";

// What a fault is called in the log; null means none.
using Fault = const char*;

// Builds the tree of one document while it reads its tokens.
class TreeBuilder {
 public:
  TreeBuilder(DomParser& parser, DomNodePool& pool, DomNode& document)
      : scanner_(parser), parser_(parser), pool_(pool), document_(document), current_(&document) {}

  // Reads to the end of the text.
  Fault Run();

 private:
  Fault ReadEnd(bool& finished);
  Fault ReadText();
  Fault ReadStartTag();
  Fault ReadEndTag();
  Fault ReadAttributes(DomNode& element, int& token);
  Fault ReadAttribute(DomNode& element);
  Fault OpenElement(DomNode& element);
  // What is read past: an instruction, a comment, a CDATA section.
  Fault SkipTo(int last_token, Fault fault);
  // Ends a text in front of the token, which begins with `<`.
  void EndTextHere() { *scanner_.token_start() = '\0'; }
  DomNode* AppendNode(DomNode& parent, const char* name, const char* value, std::int32_t type);

  XmlScanner scanner_;
  DomParser& parser_;
  DomNodePool& pool_;
  DomNode& document_;
  DomNode* current_;
  std::int32_t open_elements_ = 0;
};

DomNode* TreeBuilder::AppendNode(DomNode& parent, const char* name, const char* value,
                                 std::int32_t type) {
  DomNode* const node = pool_.Allocate();
  if (node == nullptr) return nullptr;
  DomNode* const previous = parent.lastChild;
  new (node) DomNode{name,     value,   type, 0,       &parent,    nullptr,  nullptr,
                     previous, nullptr, 0,    nullptr, &document_, &parser_, &pool_};
  if (previous != nullptr) {
    previous->nextSibling = node;
  } else {
    parent.firstChild = node;
  }
  parent.lastChild = node;
  ++parent.childCount;
  return node;
}

Fault TreeBuilder::Run() {
  bool finished = false;
  Fault fault = nullptr;
  while (!finished && fault == nullptr) {
    switch (scanner_.NextToken()) {
      case kXmlTokenTagStart:
        fault = ReadStartTag();
        break;
      case kXmlTokenEndTagStart:
        fault = ReadEndTag();
        break;
      case kXmlTokenSpace:
        break;
      case kXmlTokenText:
        fault = ReadText();
        break;
      case kXmlTokenInstructionStart:
        fault = SkipTo(kXmlTokenInstructionEnd, "003");
        break;
      case kXmlTokenCommentStart:
        fault = SkipTo(kXmlTokenCommentEnd, "001");
        break;
      case kXmlTokenCdataStart:
        fault = SkipTo(kXmlTokenCdataEnd, "002");
        break;
      case kXmlTokenEnd:
        fault = ReadEnd(finished);
        break;
      default:
        fault = "023";
        break;
    }
  }
  return fault;
}

Fault TreeBuilder::ReadEnd(bool& finished) {
  if (scanner_.AtEnd()) return "022";
  if (!scanner_.AtNul()) return nullptr;
  if (scanner_.token_length() > 0) return "020";
  if (open_elements_ != 0) return "021";
  finished = true;
  return nullptr;
}

Fault TreeBuilder::SkipTo(int last_token, Fault fault) {
  EndTextHere();
  for (;;) {
    const int token = scanner_.NextToken();
    if (token == last_token) return nullptr;
    if (token == kXmlTokenEnd) return fault;
  }
}

Fault TreeBuilder::ReadText() {
  if (parser_.depth < 1) return "015";
  scanner_.GoBackToTokenStart();
  if (scanner_.NextToken2('<') == kXmlTokenEnd) return "016";
  if (scanner_.token_length() == 0) return nullptr;
  return AppendNode(*current_, kTextName, scanner_.token_start(), kDomText) == nullptr ? "017"
                                                                                       : nullptr;
}

Fault TreeBuilder::ReadStartTag() {
  EndTextHere();
  ++parser_.depth;
  if (scanner_.NextToken() != kXmlTokenText) return "004";
  char* const name = scanner_.token_start();
  char* const name_end = scanner_.token_end();
  // Only now that the token behind the name has been read may a NUL take the place of its first
  // character.
  int token = scanner_.SkipSpaces();
  *name_end = '\0';

  DomNode* const element = AppendNode(*current_, name, nullptr, kDomElement);
  if (element == nullptr) return "005";
  if (token != kXmlTokenTagEnd) {
    const Fault fault = ReadAttributes(*element, token);
    if (fault != nullptr) return fault;
    if (token == kXmlTokenEmptyTagEnd) {
      --parser_.depth;
      return nullptr;
    }
  }
  return OpenElement(*element);
}

Fault TreeBuilder::ReadAttributes(DomNode& element, int& token) {
  while (token != kXmlTokenTagEnd && token != kXmlTokenEmptyTagEnd) {
    if (token != kXmlTokenText) return "006";
    const Fault fault = ReadAttribute(element);
    if (fault != nullptr) return fault;
    token = scanner_.SkipSpaces();
  }
  return nullptr;
}

Fault TreeBuilder::ReadAttribute(DomNode& element) {
  char* const name = scanner_.token_start();
  char* const name_end = scanner_.token_end();
  if (scanner_.SkipSpaces() != kXmlTokenEqual) return "007";
  const int quote = scanner_.SkipSpaces();
  if (quote != kXmlTokenSingleQuote && quote != kXmlTokenDoubleQuote) return "009";
  scanner_.NextToken2(quote == kXmlTokenSingleQuote ? '\'' : '"');
  char* const value = scanner_.token_start();
  char* const value_end = scanner_.token_end();
  if (scanner_.NextToken() != quote) return "008";
  *name_end = '\0';
  *value_end = '\0';
  return MakeDomTree::SetAttributeDomElement(&element, name, value) == 0 ? "005" : nullptr;
}

Fault TreeBuilder::OpenElement(DomNode& element) {
  const int content = scanner_.NextToken2('<');
  if (content == kXmlTokenEnd) return "010";
  if (content != kXmlTokenSpace && scanner_.token_length() > 0 &&
      AppendNode(element, kTextName, scanner_.token_start(), kDomText) == nullptr) {
    return "011";
  }
  current_ = &element;
  ++open_elements_;
  return nullptr;
}

Fault TreeBuilder::ReadEndTag() {
  EndTextHere();
  --open_elements_;
  if (current_ != &document_ && scanner_.TakeTagEnd(current_->nodeName)) {
    --parser_.depth;
    current_ = current_->parentNode;
    return nullptr;
  }
  if (scanner_.SkipSpaces() != kXmlTokenText) return "012";
  const char* const name = scanner_.token_start();
  char* const name_end = scanner_.token_end();
  if (scanner_.SkipSpaces() != kXmlTokenTagEnd) return "013";
  --parser_.depth;
  *name_end = '\0';
  // The document is no element that could end, whatever the end tag calls it.
  if (current_ == &document_ || std::strcmp(name, current_->nodeName) != 0) return "014";
  current_ = current_->parentNode;
  return nullptr;
}

}  // namespace

int EmXmlParser::tokens_[128];
unsigned char EmXmlParser::ends_run_[256];
// Filled while the library is loaded, so that threads only ever read the table.
bool EmXmlParser::flag_ = EmXmlParser::SetTokens();

bool EmXmlParser::SetTokens() {
  int entry = 0;
  for (const char* character = kMarkedCharacters; *character != '\0'; ++character) {
    const unsigned char index = static_cast<unsigned char>(*character);
    tokens_[index] = ++entry;
    ends_run_[index] = 1;
  }
  ends_run_[0] = 1;
  return true;
}

int EmXmlParser::InitializeCParser(const char* text, int size, DomParser& parser) {
  if (text == nullptr || size <= 0) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return -1;
  }
  if (!flag_) flag_ = SetTokens();
  char* const buffer = const_cast<char*>(text);
  parser.tokenLength = 0;
  parser.depth = 0;
  parser.cursor = buffer;
  parser.buffer = buffer;
  parser.end = buffer + size + 1;
  parser.tokenStart = nullptr;
  parser.document = nullptr;
  parser.nodes.reset();
  return 0;
}

int EmXmlParser::NextToken(DomParser& parser) { return XmlScanner(parser).NextToken(); }

int EmXmlParser::NextToken2(char delimiter, DomParser& parser) {
  return XmlScanner(parser).NextToken2(delimiter);
}

int EmXmlParser::SkipSpaces(DomParser& parser) { return XmlScanner(parser).SkipSpaces(); }

int EmXmlParser::ParseXmlData(DomParser& parser) {
  DomNodePool* const pool = PoolOf(parser);
  DomNode* document = nullptr;
  if (pool != nullptr) pool->ExpectText(static_cast<std::size_t>(parser.end - parser.buffer));
  if (pool == nullptr || MakeDomTree::CreateDocumentDomDocument(parser, document) == 0) {
    VEX_LOG(kLogMajor, kTag, "CreateDocumentDomDocument failed");
    return -1;
  }
  const Fault fault = TreeBuilder(parser, *pool, *document).Run();
  if (fault != nullptr) {
    VEX_LOG(kLogMajor, kTag, "Xml Parser Failure, Error %s", fault);
    return -1;
  }
  return 0;
}

}  // namespace utils
}  // namespace vex_upnp
