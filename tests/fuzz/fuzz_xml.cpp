// Reads bytes as XML: token by token, as a tree with both cursors, and beside another parser; and
// escapes and unescapes them.
#include <expat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <vexupnpcp/embeddedxmlparser.h>
#include <vexupnpcp/xml_utils.h>

#include "xmlparser/src/dom_cursor.h"
#include "xmlparser/src/number_references.h"
#include "xmlparser/src/xml_scope.h"

namespace {

namespace utils = vex_upnp::utils;

void Demand(bool holds) {
  if (!holds) std::abort();
}

// Ends with its NUL at the edge of a heap block.
std::unique_ptr<char[]> EdgeCopy(const std::string& text) {
  std::unique_ptr<char[]> copy(new char[text.size() + 1]);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

void ReadTokens(const std::string& text) {
  const std::unique_ptr<char[]> copy = EdgeCopy(text);
  utils::DomParser parser;
  if (utils::EmXmlParser::InitializeCParser(copy.get(), static_cast<int>(text.size()), parser) !=
      0) {
    return;
  }
  for (;;) {
    const char* const before = parser.cursor;
    const int token = utils::EmXmlParser::NextToken(parser);
    Demand(parser.tokenStart == before && parser.cursor <= parser.end);
    if (token == utils::kXmlTokenEnd) break;
    Demand(parser.cursor > before);
  }
}

void ReadTree(const std::string& text) {
  const std::unique_ptr<char[]> copy = EdgeCopy(text);
  utils::DomParser parser;
  if (utils::EmXmlParser::InitializeCParser(copy.get(), static_cast<int>(text.size()), parser) ==
      0) {
    utils::EmXmlParser::ParseXmlData(parser);
    utils::MakeDomTree::FreeDomDocument(parser.document);
  }
}

// The moves follow from the text; the cursor with records and the one without must agree.
void MoveCursors(const std::string& text) {
  utils::ScopedXmlParser with_records;
  utils::ScopedXmlParser without;
  const bool parsed = with_records.Parse(text);
  Demand(parsed == without.Parse(text));
  if (!parsed) return;
  utils::NodePtr record = utils::FirstNode(with_records.get());
  utils::DomNode* element = utils::MoveToFirst(without.get());
  for (std::size_t i = 0; i < 64; ++i) {
    Demand(static_cast<bool>(record) == (element != nullptr));
    if (element != nullptr) {
      Demand(record->name == utils::ElementName(*element));
      Demand(record->value == utils::ElementValue(*element));
    }
    switch (text[i % text.size()] % 4) {
      case 0:
      case 1:
        record = utils::ChildNode(with_records.get());
        element = utils::MoveToChild(without.get());
        break;
      case 2:
        record = utils::NextNode(with_records.get());
        element = utils::MoveToNext(without.get());
        break;
      default:
        utils::XmlParserStepBackToParentNode(with_records.get());
        utils::StepBack(without.get());
        record = utils::NextNode(with_records.get());
        element = utils::MoveToNext(without.get());
        break;
    }
  }
}

void AppendWithoutSpace(const char* text, std::size_t length, std::string& out) {
  for (std::size_t i = 0; i < length; ++i) {
    if (std::strchr(" \t\r\n", text[i]) == nullptr) out += text[i];
  }
}

void AppendWithoutSpace(const char* text, std::string& out) {
  AppendWithoutSpace(text, std::strlen(text), out);
}

// Elements with their attributes, and all text apart from that; texts may be cut in other places.
struct Outline {
  std::string structure;
  std::string text;
};

Outline OutlineOf(const utils::DomNode& document) {
  Outline outline;
  const utils::DomNode* node = &document;
  for (;;) {
    if (node->nodeType == utils::kDomElement) {
      outline.structure += std::string("<") + node->nodeName;
      for (const utils::DomNode* a = node->attributes; a != nullptr; a = a->attributes) {
        outline.structure += std::string(" ") + a->nodeName + "=";
        AppendWithoutSpace(a->nodeValue, outline.structure);
      }
    } else if (node->nodeType == utils::kDomText) {
      AppendWithoutSpace(node->nodeValue, outline.text);
    }
    if (node->firstChild != nullptr) {
      node = node->firstChild;
      continue;
    }
    while (node != &document && node->nextSibling == nullptr) {
      if (node->nodeType == utils::kDomElement) outline.structure += ">";
      node = node->parentNode;
    }
    if (node == &document) return outline;
    if (node->nodeType == utils::kDomElement) outline.structure += ">";
    node = node->nextSibling;
  }
}

void OnStart(void* data, const char* name, const char** attributes) {
  Outline& outline = *static_cast<Outline*>(data);
  outline.structure += std::string("<") + name;
  for (; *attributes != nullptr; attributes += 2) {
    outline.structure += std::string(" ") + attributes[0] + "=";
    AppendWithoutSpace(attributes[1], outline.structure);
  }
}

void OnEnd(void* data, const char*) { static_cast<Outline*>(data)->structure += ">"; }

void OnText(void* data, const char* text, int length) {
  AppendWithoutSpace(text, static_cast<std::size_t>(length), static_cast<Outline*>(data)->text);
}

bool ReadByExpat(const std::string& text, Outline& outline) {
  const XML_Parser parser = XML_ParserCreate(nullptr);
  XML_SetUserData(parser, &outline);
  XML_SetElementHandler(parser, OnStart, OnEnd);
  XML_SetCharacterDataHandler(parser, OnText);
  const bool read =
      XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK;
  XML_ParserFree(parser);
  return read;
}

// Where the two mean to differ: references, CDATA sections, backslashes, other encodings, and a
// start that is cut short inside what it began.
bool IsComparable(const std::string& text) {
  for (const char* piece : {"&", "<![CDATA[", "\\", "<!-->", "<?>"}) {
    if (text.find(piece) != std::string::npos) return false;
  }
  for (const char character : text) {
    if (character <= 0) return false;
  }
  return true;
}

void CompareWithExpat(const std::string& text) {
  if (!IsComparable(text)) return;
  Outline theirs;
  utils::ScopedXmlParser ours;
  if (!ours.Parse(text) || !ReadByExpat(text, theirs)) return;
  const Outline outline = OutlineOf(*ours.get().document);
  Demand(outline.structure == theirs.structure);
  Demand(outline.text == theirs.text);
}

// More than one kind of control character would gather in what their references are replaced by.
bool HasAtMostOneControl(const std::string& text) {
  char control = 0;
  for (const char character : text) {
    if (character < 1 || character > 31) continue;
    if (control != 0 && control != character) return false;
    control = character;
  }
  return true;
}

void EscapeAndBack(const std::string& text) {
  std::string escaped;
  Demand(utils::XmlEscapeValue(text, escaped) == 0);
  Demand(escaped.find_first_of("<>\"'") == std::string::npos);
  std::string back;
  Demand(utils::XmlUnescapeValue(escaped, back) == 0);
  if (HasAtMostOneControl(text)) Demand(back == text);
}

void ReplaceReferencesBothWays(const std::string& text) {
  std::string in_one_pass;
  if (utils::ReplaceReferencesInOnePass(text, in_one_pass) != utils::ReferenceResult::kDone) return;
  std::string one_by_one = text;
  Demand(utils::ReplaceReferencesOneByOne(one_by_one));
  Demand(one_by_one == in_one_pass);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (text.empty()) return 0;
  ReadTokens(text);
  ReadTree(text);
  MoveCursors(text);
  CompareWithExpat(text);
  EscapeAndBack(text);
  ReplaceReferencesBothWays(text);
  return 0;
}
