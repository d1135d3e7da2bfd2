// The exported functions of the utilities, called with each of their allocations failing in turn.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <vexupnpcp/embeddedxmlparser.h>
#include <vexupnpcp/file_utils.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/makedomtree.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/string_utils.h>
#include <vexupnpcp/time_utils.h>
#include <vexupnpcp/timer.h>
#include <vexupnpcp/xml_utils.h>
#include <vexupnpcp/xmlparser.h>

#include "tests/support/memory_table.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace utils {
namespace {

using vex_test::FailEach;
using vex_test::MemoryRow;

// Too long for the place that a std::string has in itself.
constexpr char kLong[] = "a text that is far too long for a string's own place";
constexpr char kUri[] = "http://a.host.with.a.rather.long.name:8080/a/path/of/some/length/too?x=1";

MemoryRow Gives(int success, std::vector<int> failures = {}) {
  MemoryRow row;
  row.success = success;
  row.failures = std::move(failures);
  return row;
}

template <typename Then>
MemoryRow Gives(int success, std::vector<int> failures, Then then) {
  MemoryRow row = Gives(success, std::move(failures));
  row.after = then;
  return row;
}

TEST(FaultMemory, StringUtils) {
  const std::string in = kLong;
  char* copy = nullptr;
  const auto release = [&](int) { std::free(copy); };
  EXPECT_EQ(1, FailEach(
                   "vex_upnp::utils::StringUtils::GetValue",
                   [&] { return (copy = StringUtils::GetValue(in)) != nullptr ? 1 : 0; },
                   Gives(1, {0}, release)));
  EXPECT_EQ(1, FailEach(
                   "vex_upnp::utils::StringUtils::StrDup",
                   [&] { return (copy = StringUtils::StrDup(kLong)) != nullptr ? 1 : 0; },
                   Gives(1, {0}, release)));
  std::string text = std::string(40, ' ') + kLong + std::string(40, ' ');
  const std::string uri = kUri;
  const std::string none;
  FailEach("vex_upnp::utils::StringUtils::TrimString", [&] { StringUtils::TrimString(text); });
  FailEach("vex_upnp::utils::StringUtils::TrimStringOnLeft",
           [&] { StringUtils::TrimStringOnLeft(text); });
  FailEach("vex_upnp::utils::StringUtils::TrimStringOnRight",
           [&] { StringUtils::TrimStringOnRight(text); });
  FailEach("vex_upnp::utils::StringUtils::StrNStr", [] { StringUtils::StrNStr(kLong, 20, "far"); });
  FailEach(
      "vex_upnp::utils::StringUtils::GetHashValue",
      [&] { return StringUtils::GetHashValue(in, text) ? 1 : 0; }, Gives(1, {0}));
  EXPECT_GT(FailEach(
                "vex_upnp::utils::StringUtils::EscapeURI",
                [&] {
                  std::string out;
                  StringUtils::EscapeURI(in, out);
                  return out.empty() ? 0 : 1;
                },
                Gives(1, {0})),
            0);
  int port = 0;
  EXPECT_GT(FailEach(
                "vex_upnp::utils::StringUtils::ParseURI",
                [&] {
                  std::string host;
                  std::string path;
                  return StringUtils::ParseURI(uri, host, port, path) ? 1 : 0;
                },
                Gives(1, {0})),
            1);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::StringUtils::ParseRelayURI",
                [&] {
                  std::string host;
                  std::string port_text;
                  std::string path;
                  return StringUtils::ParseRelayURI(uri, host, port_text, path);
                },
                Gives(result::kOk, {result::kFailure})),
            1);
  const std::string relative = "/a/path/of/some/length/too/description.xml";
  EXPECT_GT(FailEach(
                "vex_upnp::utils::StringUtils::GetAbsoluteUri",
                [&] {
                  std::string absolute;
                  return StringUtils::GetAbsoluteUri(relative, none, in, 80, none, absolute);
                },
                Gives(result::kOk, {result::kNoMemory})),
            0);
}

TEST(FaultMemory, TimeAndXmlText) {
  EXPECT_GT(FailEach(
                "vex_upnp::utils::Generate_CurrentDate",
                [] {
                  std::string date;
                  return Generate_CurrentDate(date);
                },
                Gives(result::kOk, {result::kFailure})),
            0);
  const std::string in = std::string("<&\"'>&#65;&amp;") + kLong;
  const std::string escaped = "&lt;&amp;lt;&#65;&#x42;" + in;
  EXPECT_GT(FailEach(
                "vex_upnp::utils::XmlEscapeValue",
                [&] {
                  std::string text;
                  return XmlEscapeValue(in, text);
                },
                Gives(result::kOk, {result::kNoMemory})),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::XmlUnescapeValue",
                [&] {
                  std::string text;
                  return XmlUnescapeValue(escaped, text);
                },
                Gives(result::kOk, {result::kNoMemory})),
            0);
  std::string numbers = escaped;
  FailEach(
      "vex_upnp::utils::ConvertSpecialNumbers", [&] { return ConvertSpecialNumbers(numbers); },
      Gives(result::kOk, {result::kNoMemory}, [&](int code) {
        if (code != result::kOk) {
          EXPECT_EQ(escaped, numbers);
        }
        numbers = escaped;
      }));
}

class ScopedFile {
 public:
  explicit ScopedFile(const std::string& content) {
    path_ = "/tmp/vex_fault_memory_" + std::to_string(::getpid()) + "_with_a_long_name.txt";
    std::ofstream(path_) << content;
  }
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;
  ~ScopedFile() { ::unlink(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(FaultMemory, Files) {
  const ScopedFile file("\xEF\xBB\xBF" + std::string(3000, 'x'));
  char* content = nullptr;
  FailEach(
      "vex_upnp::utils::ReadFileUTF8", [&] { return ReadFileUTF8(file.path(), &content); },
      Gives(result::kOk, {result::kFailure, result::kNoMemory}, [&](int) {
        delete[] content;
        content = nullptr;
      }));
  FailEach(
      "vex_upnp::utils::OpenFileStream",
      [&] {
        std::fstream stream;
        return OpenFileStream(file.path(), std::ios::in, stream);
      },
      Gives(result::kOk, {result::kFailure}));
  const std::string folder = "/tmp/";
  const std::list<std::string> names{"a name of which there is no file", file.path().substr(5)};
  std::string name;
  std::string path;
  EXPECT_GT(FailEach(
                "vex_upnp::utils::CheckFileExistance",
                [&] {
                  name.clear();
                  path.clear();
                  name.shrink_to_fit();
                  path.shrink_to_fit();
                  CheckFileExistance(folder, names, name, path);
                  return path == file.path() ? 1 : 0;
                },
                Gives(1, {0}, [&](int) { EXPECT_EQ(name.empty(), path.empty()); })),
            0);
}

TEST(FaultMemory, FileStream) {
  const ScopedFile file("0123456789");
  std::unique_ptr<VEXFileStream> stream(new VEXFileStream);
  const MemoryRow plain = Gives(0, {1});
  FailEach(
      "vex_upnp::utils::VEXFileStream::Open",
      [&] { return stream->Open(file.path(), VEXFileStream::OPEN_READ_WRITE); },
      Gives(0, {1}, [&](int) { stream.reset(new VEXFileStream); }));
  FailEach(
      "vex_upnp::utils::VEXFileStream::Close", [&] { return stream->Close(); }, plain);
  ASSERT_EQ(0, stream->Open(file.path(), VEXFileStream::OPEN_READ_WRITE));
  FailEach(
      "vex_upnp::utils::VEXFileStream::IsOpen", [&] { return stream->IsOpen() ? 1 : 0; }, Gives(1));
  FailEach(
      "vex_upnp::utils::VEXFileStream::WriteBuffer",
      [&] { return stream->WriteBuffer(10, "abcdefghij"); }, plain);
  long long size = 0;
  FailEach(
      "vex_upnp::utils::VEXFileStream::GetSize", [&] { return stream->GetSize(size); }, plain);
  long long position = 0;
  FailEach(
      "vex_upnp::utils::VEXFileStream::SeekToPosition",
      [&] { return stream->SeekToPosition(position, VEXFileStream::SEEK_FROM_START); }, plain);
  char buffer[4];
  FailEach(
      "vex_upnp::utils::VEXFileStream::ReadBuffer",
      [&] { return stream->ReadBuffer(sizeof(buffer), buffer); }, Gives(4, {-1}, [&](int) {
        stream->SeekToPosition(position, VEXFileStream::SEEK_FROM_START);
      }));
  FailEach("vex_upnp::utils::VEXFileStream::Delete", [&] { stream->Delete(file.path()); });
  EXPECT_NE(0, ::access(file.path().c_str(), F_OK));
}

constexpr char kDocument[] =
    "<root a=\"a value of some length, as they are\"><!-- c --><child name=\"another value that is "
    "long\">a text that has its length too</child><child>second</child></root>";

// A parsed document with the cursor on its root.
class Document {
 public:
  Document() {
    EXPECT_EQ(1, XmlParserGetDomMA(kDocument, parser));
    EXPECT_EQ(1, XmlParserGetFirstNode(parser, root));
  }
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;
  ~Document() {
    XmlParserFreeNode(root);
    XmlParserDestroy(parser);
  }
  XmlParser parser;
  NodeXml* root = nullptr;
};

TEST(FaultMemory, XmlWalk) {
  const std::string xml = kDocument;
  XmlParser parser;
  const auto destroy = [&](int) { XmlParserDestroy(parser); };
  EXPECT_GT(FailEach(
                "vex_upnp::utils::XmlParserGetDomMA",
                [&] { return XmlParserGetDomMA(xml, parser); }, Gives(1, {0}, destroy)),
            1);
  FailEach(
      "vex_upnp::utils::XMLDataParser::XMLParserGetDomMA",
      [&] { return XMLDataParser::XMLParserGetDomMA(xml, parser); }, Gives(1, {0}, destroy));
  parser.xml = xml;
  parser.size = static_cast<std::int32_t>(xml.size());
  FailEach(
      "vex_upnp::utils::XMLDataParser::XMLParserInit",
      [&] { return XMLDataParser::XMLParserInit(parser); }, Gives(0, {-1}, [&](int) {
        XmlParserDestroy(parser);
        parser.xml = xml;
        parser.size = static_cast<std::int32_t>(xml.size());
      }));
  Document document;
  NodeXml* node = nullptr;
  const auto free_node = [&](int) {
    XmlParserFreeNode(node);
    node = nullptr;
  };
  EXPECT_GT(
      FailEach(
          "vex_upnp::utils::XmlParserGetFirstNode",
          [&] { return XmlParserGetFirstNode(document.parser, node); }, Gives(1, {0}, free_node)),
      0);
  FailEach(
      "vex_upnp::utils::XMLDataParser::XMLParserGetFirstNode",
      [&] { return (node = XMLDataParser::XMLParserGetFirstNode(document.parser)) ? 1 : 0; },
      Gives(1, {0}, free_node));
  const auto back_to_root = [&](int code) {
    free_node(code);
    EXPECT_EQ(1, XmlParserGetFirstNode(document.parser, node));
    free_node(code);
  };
  FailEach(
      "vex_upnp::utils::XmlParserGetChildNode",
      [&] { return XmlParserGetChildNode(document.parser, node); }, Gives(1, {0}, back_to_root));
  FailEach(
      "vex_upnp::utils::XMLDataParser::XMLParserGetChildNode",
      [&] { return (node = XMLDataParser::XMLParserGetChildNode(document.parser)) ? 1 : 0; },
      Gives(1, {0}, back_to_root));
  const auto back_to_child = [&](int code) {
    back_to_root(code);
    EXPECT_EQ(1, XmlParserGetChildNode(document.parser, node));
    free_node(code);
  };
  back_to_child(0);
  FailEach(
      "vex_upnp::utils::XmlParserGetNextNode",
      [&] { return XmlParserGetNextNode(document.parser, node); }, Gives(1, {0}, back_to_child));
  FailEach(
      "vex_upnp::utils::XMLDataParser::XMLParserGetNextNode",
      [&] { return (node = XMLDataParser::XMLParserGetNextNode(document.parser)) ? 1 : 0; },
      Gives(1, {0}, back_to_child));
  FailEach("vex_upnp::utils::XmlParserStepBackToParentNode",
           [&] { XmlParserStepBackToParentNode(document.parser); });
  FailEach("vex_upnp::utils::XMLDataParser::XMLParserStepBackToParentNode",
           [&] { XMLDataParser::XMLParserStepBackToParentNode(document.parser); });
  FailEach(
      "vex_upnp::utils::XMLDataParser::CreateNodeData",
      [&] {
        XMLDataParser::CreateNodeData(document.parser, document.parser.document->firstChild, node);
        return node != nullptr ? 1 : 0;
      },
      Gives(1, {0}, free_node));
  std::string blanks = " " + xml + " ";
  FailEach("vex_upnp::utils::XMLDataParser::StringTrimRightLeft",
           [&] { XMLDataParser::StringTrimRightLeft(blanks); });
  FailEach("vex_upnp::utils::XmlParserFreeNode", [&] {
    XmlParserFreeNode(node);
    node = nullptr;
  });
  FailEach("vex_upnp::utils::XmlParserDestroy", [&] { XmlParserDestroy(parser); });
  FailEach("vex_upnp::utils::XMLDataParser::XMLParserDestroy",
           [&] { XMLDataParser::XMLParserDestroy(parser); });
}

TEST(FaultMemory, XmlAttributes) {
  Document document;
  int number = 0;
  std::string name = "a";
  std::string value;
  const auto forget = [&](int) {
    value.clear();
    value.shrink_to_fit();
  };
  FailEach(
      "vex_upnp::utils::XmlGetCurrentNodeChildCount",
      [&] { return XmlGetCurrentNodeChildCount(document.parser, number); }, Gives(1));
  FailEach(
      "vex_upnp::utils::XmlGetCurNodeFirstChildType",
      [&] { return XmlGetCurNodeFirstChildType(document.parser, number); }, Gives(1));
  EXPECT_GT(FailEach(
                "vex_upnp::utils::XmlGetAttribute",
                [&] { return XmlGetAttribute(document.root, name, value); }, Gives(1, {0}, forget)),
            0);
  FailEach(
      "vex_upnp::utils::XmlGetAttributeChar",
      [&] { return XmlGetAttributeChar(document.root, name, value); }, Gives(1, {0}, forget));
  FailEach(
      "vex_upnp::utils::XmlGetAttributeName",
      [&] { return XmlGetAttributeName(document.root, name, value); }, Gives(1, {0}, forget));
  FailEach(
      "vex_upnp::utils::XmlGetAllNodeAttributes",
      [&] {
        std::vector<std::string> attributes;
        return XmlGetAllNodeAttributes(document.root, attributes);
      },
      Gives(1, {0}));
}

TEST(FaultMemory, XmlScanner) {
  std::string text = kDocument;
  std::unique_ptr<DomParser> parser(new DomParser);
  const auto restart = [&](int) {
    text = kDocument;
    parser.reset(new DomParser);
  };
  const auto initialize = [&] {
    return EmXmlParser::InitializeCParser(text.c_str(), static_cast<int>(text.size()), *parser);
  };
  FailEach("vex_upnp::utils::EmXmlParser::InitializeCParser", initialize, Gives(0, {}, restart));
  const auto begin = [&](int) {
    restart(0);
    EXPECT_EQ(0, initialize());
  };
  begin(0);
  FailEach(
      "vex_upnp::utils::EmXmlParser::NextToken", [&] { return EmXmlParser::NextToken(*parser); },
      Gives(kXmlTokenTagStart, {}, begin));
  FailEach(
      "vex_upnp::utils::EmXmlParser::NextToken2",
      [&] { return EmXmlParser::NextToken2('=', *parser); }, Gives(kXmlTokenText, {}, begin));
  FailEach(
      "vex_upnp::utils::EmXmlParser::SkipSpaces", [&] { return EmXmlParser::SkipSpaces(*parser); },
      Gives(kXmlTokenTagStart, {}, begin));
  EXPECT_GT(FailEach(
                "vex_upnp::utils::EmXmlParser::ParseXmlData",
                [&] { return EmXmlParser::ParseXmlData(*parser); }, Gives(0, {-1}, begin)),
            0);
}

TEST(FaultMemory, DomTree) {
  char name[] = "name";
  char other[] = "other";
  // Without a parser each node has a block of its own.
  DomNode* node = nullptr;
  FailEach(
      "vex_upnp::utils::MakeDomTree::AllocateANode",
      [&] { return (node = MakeDomTree::AllocateANode(nullptr)) != nullptr ? 1 : 0; },
      Gives(1, {0}, [&](int) {
        if (node != nullptr) MakeDomTree::ClearDomNode(node);
      }));
  const std::string all = "*";
  DomParser parser;
  DomNode* document = nullptr;
  const auto make_document = [&] {
    return MakeDomTree::CreateDocumentDomDocument(parser, document);
  };
  FailEach("vex_upnp::utils::MakeDomTree::CreateDocumentDomDocument", make_document,
           Gives(1, {0}, [&](int) {
             if (document != nullptr) MakeDomTree::FreeDomDocument(document);
             parser = DomParser();
           }));
  ASSERT_EQ(1, make_document());
  const auto made = [&](DomNode* result) {
    node = result;
    return node != nullptr ? 1 : 0;
  };
  const MemoryRow freed = Gives(1, {0}, [&](int) { MakeDomTree::ClearDomNode(node); });
  FailEach(
      "vex_upnp::utils::MakeDomTree::CreateElementDomDocument",
      [&] { return made(MakeDomTree::CreateElementDomDocument(document, name)); }, freed);
  FailEach(
      "vex_upnp::utils::MakeDomTree::CreateTextNodeDomDocument",
      [&] { return made(MakeDomTree::CreateTextNodeDomDocument(document, name)); }, freed);
  FailEach(
      "vex_upnp::utils::MakeDomTree::CreateAttributeDomDocument",
      [&] { return made(MakeDomTree::CreateAttributeDomDocument(document, name)); }, freed);
  DomNode* const parent = MakeDomTree::CreateElementDomDocument(document, name);
  DomNode* const child = MakeDomTree::CreateElementDomDocument(document, other);
  FailEach(
      "vex_upnp::utils::MakeDomTree::InsertBeforeDomNode",
      [&] { return made(MakeDomTree::InsertBeforeDomNode(parent, child, nullptr)); }, Gives(1));
  // Enough attributes for the index of names.
  std::vector<std::string> names;
  for (int i = 0; i < 100; ++i) names.push_back("attribute" + std::to_string(i));
  int index = 0;
  FailEach(
      "vex_upnp::utils::MakeDomTree::SetAttributeDomElement",
      [&] { return MakeDomTree::SetAttributeDomElement(parent, names[0].c_str(), "v"); },
      Gives(1, {0}));
  for (const std::string& attribute : names) {
    const int failures = FailEach(
        "vex_upnp::utils::MakeDomTree::SetAttributeDomElement",
        [&] { return MakeDomTree::SetAttributeDomElement(parent, attribute.c_str(), "v"); },
        Gives(1, {0}));
    index += failures;
  }
  EXPECT_GT(index, 0);
  EXPECT_EQ(100, parent->attributeCount);
  FailEach(
      "vex_upnp::utils::MakeDomTree::GetFirstChildDomNode",
      [&] { return made(MakeDomTree::GetFirstChildDomNode(parent)); }, Gives(1));
  ASSERT_NE(nullptr, MakeDomTree::InsertBeforeDomNode(document, parent, nullptr));
  FailEach(
      "vex_upnp::utils::MakeDomTree::GetFirstChildDomDocument",
      [&] { return made(MakeDomTree::GetFirstChildDomDocument(document)); }, Gives(1));
  FailEach(
      "vex_upnp::utils::MakeDomTree::GetElementsByTagNameDomDocument",
      [&] { return made(MakeDomTree::GetElementsByTagNameDomDocument(document, all)); },
      Gives(1, {0}, [&](int) {
        DomNode* entry = node == nullptr ? nullptr : node->firstChild;
        while (entry != nullptr) {
          DomNode* const next = entry->nextSibling;
          MakeDomTree::ClearDomNode(entry);
          entry = next;
        }
        MakeDomTree::ClearDomNode(node);
      }));
  FailEach("vex_upnp::utils::MakeDomTree::RemoveChildDomNode",
           [&] { MakeDomTree::RemoveChildDomNode(child, parent); });
  FailEach("vex_upnp::utils::MakeDomTree::ClearDomNode",
           [&] { MakeDomTree::ClearDomNode(nullptr); });
  FailEach("vex_upnp::utils::MakeDomTree::FreeDomNode", [&] { MakeDomTree::FreeDomNode(nullptr); });
  FailEach("vex_upnp::utils::MakeDomTree::FreeDomNodeRecursively",
           [&] { MakeDomTree::FreeDomNodeRecursively(nullptr); });
  FailEach("vex_upnp::utils::MakeDomTree::FreeDomDocument",
           [&] { MakeDomTree::FreeDomDocument(nullptr); });
  MakeDomTree::FreeDomNode(child);
  MakeDomTree::FreeDomDocument(document);
}

std::string Message() {
  return "POST /a/path/that/is/long/enough/for/a/block/of/its/own HTTP/1.1\r\n"
         "HOST: 10.77.0.1:5000\r\nA-HEADER-WITH-A-LONG-NAME: and a value that is long as well\r\n"
         "TRANSFER-ENCODING: chunked\r\n\r\n14\r\ntwenty bytes of body\r\n0\r\n\r\n";
}

boost::shared_ptr<HTTPInfo> Parsed() {
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  const std::string text = Message();
  EXPECT_EQ(0, HTTPParser::Parse(text.data(), static_cast<unsigned>(text.size()), info));
  EXPECT_EQ(1, info->GetState());
  return info;
}

TEST(FaultMemory, HttpParser) {
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  const std::string text = Message();
  EXPECT_GT(
      FailEach(
          "vex_upnp::utils::HTTPParser::Parse",
          [&] { return HTTPParser::Parse(text.data(), static_cast<unsigned>(text.size()), info); },
          Gives(result::kOk, {result::kFailure, result::kNoMemory},
                [&](int) { info.reset(new HTTPInfo); })),
      3);
  // A size line that is cut has to be kept.
  const std::size_t cut = text.find("14\r\n") + 1;
  const auto first_part = [&](int) {
    info.reset(new HTTPInfo);
    EXPECT_EQ(0, HTTPParser::Parse(text.data(), static_cast<unsigned>(cut), info));
    info->SetParsingStatus(PARSING_CONTINUE);
  };
  first_part(0);
  const auto rest = static_cast<unsigned>(text.size() - cut);
  FailEach(
      "vex_upnp::utils::HTTPParser::Parse",
      [&] { return HTTPParser::Parse(text.data() + cut, rest, info); },
      Gives(result::kOk, {result::kFailure, result::kNoMemory}, first_part));
  unsigned consumed = 0;
  FailEach(
      "vex_upnp::utils::HTTPInfo::GetHex",
      [&] { return info->GetHex(text.data() + cut, rest, consumed) != nullptr ? 1 : 0; },
      Gives(1, {0}, first_part));
}

TEST(FaultMemory, HttpMessage) {
  boost::shared_ptr<HTTPInfo> info = Parsed();
  const auto again = [&](int) { info = Parsed(); };
  const MemoryRow plain = Gives(result::kOk, {result::kFailure}, again);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::GetStartLine",
                [&] {
                  std::string line;
                  return info->GetStartLine(line);
                },
                plain),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::GetHeaderValue",
                [&] {
                  std::string value;
                  return info->GetHeaderValue("A-HEADER-WITH-A-LONG-NAME", value);
                },
                plain),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::GetURI",
                [&] {
                  std::string uri;
                  return info->GetURI(uri);
                },
                Gives(result::kOk, {result::kNoMemory})),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::GetHeader",
                [&] {
                  std::string header;
                  return info->GetHeader(header);
                },
                plain),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::GetHeader",
                [&] {
                  std::vector<NameValue*> headers;
                  return info->GetHeader(headers);
                },
                plain),
            0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::ReadBody",
                [&] {
                  std::string body;
                  return info->ReadBody(body);
                },
                plain),
            0);
  const std::string name = "ANOTHER-HEADER-THAT-IS-LONG";
  const std::string address = kLong;
  FailEach(
      "vex_upnp::utils::HTTPInfo::SetHeader", [&] { return info->SetHeader(name, address); },
      Gives(result::kOk, {}, again));
  FailEach("vex_upnp::utils::HTTPInfo::FormatStartLine", [&] { info->FormatStartLine(); });
  std::string out;
  FailEach("vex_upnp::utils::HTTPInfo::SetClientIpAddress",
           [&] { info->SetClientIpAddress(address); });
  FailEach("vex_upnp::utils::HTTPInfo::GetClientIpAddress", [&] { info->GetClientIpAddress(out); });
  FailEach("vex_upnp::utils::HTTPInfo::SetMyIpAddress", [&] { info->SetMyIpAddress(address); });
  FailEach("vex_upnp::utils::HTTPInfo::GetMyIpAddress", [&] { info->GetMyIpAddress(out); });
  char* block = nullptr;
  unsigned size = 0;
  FailEach(
      "vex_upnp::utils::HTTPInfo::GetBody",
      [&] { return (block = info->GetBody(size)) != nullptr ? 1 : 0; },
      Gives(1, {0}, [&](int code) {
        EXPECT_EQ(20U, size);
        std::free(block);
        block = nullptr;
        again(code);
      }));
  // Several pieces have to be joined.
  boost::shared_ptr<HTTPInfo> pieces;
  const auto two_pieces = [&](int) {
    std::free(block);
    block = nullptr;
    pieces.reset(new HTTPInfo);
    const std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\n";
    for (const std::string& part : {header, std::string(20, 'x'), std::string(20, 'y')}) {
      EXPECT_EQ(0, HTTPParser::Parse(part.data(), static_cast<unsigned>(part.size()), pieces));
      pieces->SetParsingStatus(PARSING_CONTINUE);
    }
  };
  two_pieces(0);
  EXPECT_GT(FailEach(
                "vex_upnp::utils::HTTPInfo::GetBody",
                [&] { return (block = pieces->GetBody(size)) != nullptr ? 1 : 0; },
                Gives(1, {0}, two_pieces)),
            0);
  pieces.reset();
  std::free(block);
}

TEST(FaultMemory, HttpStoreData) {
  boost::shared_ptr<HTTPInfo> info;
  const auto again = [&](int) {
    info.reset(new HTTPInfo);
    const std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n";
    EXPECT_EQ(0, HTTPParser::Parse(header.data(), static_cast<unsigned>(header.size()), info));
  };
  again(0);
  const std::string data(50, 'x');
  EXPECT_GT(
      FailEach(
          "vex_upnp::utils::HTTPInfo::StoreData", [&] { return info->StoreData(data.data(), 50); },
          Gives(result::kOk, {result::kFailure}, again)),
      0);
}

TEST(FaultMemory, HttpAccessors) {
  const boost::shared_ptr<HTTPInfo> info = Parsed();
  int one = 0;
  int two = 0;
  const std::string text = kLong;
  FailEach("vex_upnp::utils::HTTPInfo::CheckStringValidity",
           [&] { info->CheckStringValidity(text); });
  FailEach("vex_upnp::utils::HTTPInfo::GetContentLength", [&] { info->GetContentLength(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetStatus", [&] { info->GetStatus(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetState", [&] { info->GetState(); });
  FailEach("vex_upnp::utils::HTTPInfo::SetParsingStatus",
           [&] { info->SetParsingStatus(PARSING_CONTINUE); });
  FailEach("vex_upnp::utils::HTTPInfo::GetParsingStatus", [&] { info->GetParsingStatus(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetHTTPVersion", [&] { info->GetHTTPVersion(one, two); });
  FailEach("vex_upnp::utils::HTTPInfo::SetClientPort", [&] { info->SetClientPort(80); });
  FailEach("vex_upnp::utils::HTTPInfo::GetClientPort", [&] { info->GetClientPort(one); });
  FailEach("vex_upnp::utils::HTTPInfo::GetRequestType", [&] { info->GetRequestType(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetStatusCode", [&] { info->GetStatusCode(); });
  FailEach("vex_upnp::utils::HTTPInfo::IsRequest", [&] { info->IsRequest(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetProcessedBodySize",
           [&] { info->GetProcessedBodySize(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetRawHeaderSize", [&] { info->GetRawHeaderSize(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetHeaderCount", [&] { info->GetHeaderCount(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetBodyCost", [&] { info->GetBodyCost(); });
  FailEach("vex_upnp::utils::HTTPInfo::GetHeldSize", [&] { info->GetHeldSize(); });
  FailEach("vex_upnp::utils::HTTPInfo::CleanInfo", [&] { info->CleanInfo(); });
  FailEach("vex_upnp::utils::GetStatusString", [] { GetStatusString(200); });
  FailEach("vex_upnp::utils::GetRequestString", [] { GetRequestString(HTTP_UNKNOWN_REQUEST); });
  FailEach("vex_upnp::utils::GetRequestType", [&] { GetRequestType(text); });
}

std::atomic<int> fired{0};
void CountFired(int, void*) { ++fired; }

TEST(FaultMemory, Timer) {
  const auto terminate = [](int) { utils::Timer::TerminateManager(); };
  terminate(0);
  FailEach(
      "vex_upnp::utils::Timer::InitializeManager",
      [] {
        Timer::InitializeManager();
        return 0;
      },
      Gives(0, {}, terminate));
  MemoryRow throws = Gives(1, {}, terminate);
  throws.may_throw = true;
  FailEach(
      "vex_upnp::utils::Timer::GetInstance", [] { return Timer::GetInstance() != nullptr ? 1 : 0; },
      throws);
  Timer::InitializeManager();
  fired = 0;
  int started = 0;
  throws = Gives(0, {}, [&](int) { started += 1; });
  throws.may_throw = true;
  int failures = FailEach(
      "vex_upnp::utils::Timer::Start",
      [] {
        Timer::Start(0, &CountFired, nullptr);
        return 0;
      },
      throws);
  EXPECT_GT(failures, 0);
  EXPECT_TRUE(vex_test::WaitUntil([&] { return fired == started - failures; })) << fired;
  void* argument = nullptr;
  int id = 0;
  FailEach(
      "vex_upnp::utils::Timer::Cancel",
      [&] {
        Timer::Cancel(id, &argument);
        return argument == nullptr ? 0 : 1;
      },
      Gives(0));
  FailEach("vex_upnp::utils::Timer::TerminateManager", [] { Timer::TerminateManager(); });
  // A timer whose service could not be made makes it with the next.
  fired = 0;
  failures = FailEach(
      "vex_upnp::utils::Timer::Start",
      [] {
        Timer::Start(0, &CountFired, nullptr);
        return 0;
      },
      throws);
  EXPECT_TRUE(vex_test::WaitUntil([&] { return fired > 0; }));
  Timer::TerminateManager();
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
