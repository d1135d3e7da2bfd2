#include <gmock/gmock.h>

#include <memory>
#include <string>

#include <vexupnpcp/xmlparsedata.h>

#include "tests/support/cpu_seconds.h"
#include "tests/support/emulated.h"
#include "tests/support/log_capture.h"
#include "tests/support/sanitizers.h"
#include "xmlparser/src/dom_cursor.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace utils {
namespace {

using testing::ElementsAre;

std::string TrimmedText(std::string text) {
  XMLDataParser::StringTrimRightLeft(text);
  return text;
}

TEST(XmlData, TrimmingTakesTheDefaultLocalesSpaceOffBothEnds) {
  EXPECT_EQ("a b", TrimmedText(" \t\n\v\f\ra b\r\f\v\n\t "));
  EXPECT_EQ("a", TrimmedText("a"));
  EXPECT_EQ("", TrimmedText(" \v "));
  EXPECT_EQ("", TrimmedText(""));
  // A no-break space is no white space of that locale.
  EXPECT_EQ("\xA0x\xA0", TrimmedText("\xA0x\xA0"));
}

TEST(XmlData, ViewAndStringAreTrimmedAlike) {
  for (const char* text : {"", " ", "a", " a", "a ", " \va b\f ", "\xA0 "}) {
    EXPECT_EQ(TrimmedText(text), Trimmed(text)) << text;
  }
}

TEST(XmlData, RecordHasTrimmedNamesAndUntrimmedValue) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<\va\v b\v=' c ' d='e'> x </\va\v>"));
  NodeXml* node = nullptr;
  XMLDataParser::CreateNodeData(parser.get(), parser.get().document->firstChild, node);
  const NodePtr owner(node);
  ASSERT_NE(nullptr, node);
  EXPECT_EQ("a", node->name);
  EXPECT_THAT(node->attributes, ElementsAre("b", "c", "d", "e"));
  EXPECT_EQ(" x ", node->value);
}

TEST(XmlData, NoNodeGivesNoRecord) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<a/>"));
  parser.get().currentNode = parser.get().document;
  NodeXml untouched;
  NodeXml* node = &untouched;
  XMLDataParser::CreateNodeData(parser.get(), nullptr, node);
  EXPECT_EQ(nullptr, node);
  EXPECT_EQ(parser.get().document, parser.get().currentNode);
}

TEST(XmlData, KeptTextThrowsTheCursorToItsFirstChild) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<a>x<b/></a>"));
  DomNode* const root = parser.get().document->firstChild;
  parser.get().currentNode = parser.get().document;
  NodeXml* node = nullptr;
  XMLDataParser::CreateNodeData(parser.get(), root->firstChild, node);
  EXPECT_EQ(nullptr, node);
  EXPECT_EQ(root, parser.get().currentNode);
  parser.get().currentNode = nullptr;
  XMLDataParser::CreateNodeData(parser.get(), root->firstChild, node);
  EXPECT_EQ(nullptr, node);
  EXPECT_EQ(nullptr, parser.get().currentNode);
}

TEST(XmlData, ElementCalledLikeATextHasNoValueAndNoRecord) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<a><#text>x</#text></a>"));
  const NodePtr root = FirstNode(parser.get());
  ASSERT_TRUE(root);
  EXPECT_EQ("", root->value);
  EXPECT_FALSE(ChildNode(parser.get()));
  ASSERT_TRUE(parser.Parse("<#text>x</#text>"));
  EXPECT_FALSE(FirstNode(parser.get()));
}

TEST(XmlData, FailedInitialisationClearsTheRecord) {
  XmlParser parser;
  const vex_test::LogCapture log;
  EXPECT_EQ(-1, XMLDataParser::XMLParserInit(parser));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Invalid inputs"));
  EXPECT_EQ(nullptr, parser.buffer);
  EXPECT_EQ(nullptr, parser.document);
}

void ExpectCleared(const XmlParser& parser) {
  EXPECT_EQ("", parser.xml);
  EXPECT_EQ(nullptr, parser.buffer);
  EXPECT_EQ(nullptr, parser.document);
  EXPECT_EQ(0, parser.size);
  EXPECT_EQ(nullptr, parser.currentNode);
  EXPECT_EQ(nullptr, parser.parentNode);
}

TEST(XmlData, FailedParseLeavesNoTree) {
  XmlParser parser;
  EXPECT_EQ(0, XMLDataParser::XMLParserGetDomMA("<a><b/>", parser));
  ExpectCleared(parser);
  EXPECT_FALSE(parser.nodes);
}

TEST(XmlData, DestroyingClearsTheRecord) {
  XmlParser parser;
  ASSERT_EQ(1, XMLDataParser::XMLParserGetDomMA("<a><b/></a>", parser));
  EXPECT_EQ(11, parser.size);
  const std::unique_ptr<NodeXml> root(XMLDataParser::XMLParserGetFirstNode(parser));
  EXPECT_NE(nullptr, parser.currentNode);
  XMLDataParser::XMLParserDestroy(parser);
  ExpectCleared(parser);
  XMLDataParser::XMLParserDestroy(parser);
}

TEST(XmlData, CopyIsDestroyedOnItsOwn) {
  XmlParser parser;
  ASSERT_EQ(1, XMLDataParser::XMLParserGetDomMA("<a>text</a>", parser));
  {
    XmlParser copy = parser;
    EXPECT_EQ(parser.document, copy.document);
    XMLDataParser::XMLParserDestroy(copy);
  }
  const std::unique_ptr<NodeXml> root(XMLDataParser::XMLParserGetFirstNode(parser));
  ASSERT_TRUE(root);
  EXPECT_EQ("text", root->value);
  XMLDataParser::XMLParserDestroy(parser);
}

TEST(XmlData, SecondDocumentTakesThePlaceOfTheFirst) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<a>first, and long enough to lie outside the record</a>"));
  ASSERT_TRUE(parser.Parse("<b/>"));
  const NodePtr root = FirstNode(parser.get());
  ASSERT_TRUE(root);
  EXPECT_EQ("b", root->name);
  EXPECT_FALSE(parser.Parse("<c>"));
  EXPECT_FALSE(FirstNode(parser.get()));
}

TEST(XmlData, TextEndsAtItsFirstNul) {
  ScopedXmlParser parser;
  EXPECT_TRUE(parser.Parse(std::string("<a/>\0<b", 7)));
  EXPECT_EQ(7, parser.get().size);
  EXPECT_EQ("a", FirstNode(parser.get())->name);
  EXPECT_FALSE(parser.Parse(std::string("<a>\0</a>", 8)));
  EXPECT_FALSE(parser.Parse(std::string("\0<a/>", 5)));
}

// One walk with records and one without meet the same elements in the same order, whatever moves
// are made, and end with the cursor at the same place.
void ExpectEqualWalks(const std::string& xml, unsigned moves) {
  ScopedXmlParser with_records;
  ScopedXmlParser without;
  ASSERT_EQ(with_records.Parse(xml), without.Parse(xml));
  const auto expect_equal = [&](const NodePtr& record, const DomNode* element) {
    ASSERT_EQ(static_cast<bool>(record), element != nullptr);
    if (element == nullptr) return;
    EXPECT_EQ(record->name, ElementName(*element));
    EXPECT_EQ(record->value, ElementValue(*element));
  };
  const auto place = [](XmlParser& parser, const DomNode* node) {
    return node == nullptr ? -1 : node->nodeName - parser.xml.data();
  };
  expect_equal(FirstNode(with_records.get()), MoveToFirst(without.get()));
  for (int i = 0; i < 10; ++i, moves /= 3) {
    switch (moves % 3) {
      case 0:
        expect_equal(ChildNode(with_records.get()), MoveToChild(without.get()));
        break;
      case 1:
        expect_equal(NextNode(with_records.get()), MoveToNext(without.get()));
        break;
      default:
        XmlParserStepBackToParentNode(with_records.get());
        StepBack(without.get());
        break;
    }
    const DomNode* const first = with_records.get().currentNode;
    const DomNode* const second = without.get().currentNode;
    ASSERT_EQ(first == nullptr, second == nullptr);
    if (first != nullptr && first->nodeType == kDomElement) {
      EXPECT_EQ(place(with_records.get(), first), place(without.get(), second));
    }
  }
}

TEST(XmlData, CursorWithoutRecordsMovesAlike) {
  for (unsigned moves = 0; moves < 59049; moves += 7) {
    ExpectEqualWalks("<a><b>x<c/></b>y<d><e/><#text><f/></#text></d><g h='i'/></a><j/>", moves);
    if (HasFatalFailure()) return;
  }
}

class Hostile : public testing::Test {
 protected:
  // Far above what linear work needs and far below a square; a sanitizer looks at each access, an
  // emulator at each instruction.
  const double kSeconds = vex_test::kUnderSanitizer || vex_test::kEmulated ? 20.0 : 5.0;

  std::string Repeated(const std::string& piece, int times) {
    std::string text;
    text.reserve(piece.size() * static_cast<std::size_t>(times));
    for (int i = 0; i < times; ++i) text += piece;
    return text;
  }

  vex_test::CpuSeconds cpu_;
};

TEST_F(Hostile, TwoHundredThousandNestedElements) {
  const std::string xml = Repeated("<a>", 200000) + Repeated("</a>", 200000);
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse(xml));
  int depth = 0;
  for (DomNode* node = MoveToFirst(parser.get()); node != nullptr;
       node = MoveToChild(parser.get())) {
    ++depth;
  }
  EXPECT_EQ(200000, depth);
  EXPECT_LT(cpu_.Elapsed(), kSeconds);
}

TEST_F(Hostile, AMillionSiblings) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<r>" + Repeated("<a/>", 1000000) + "</r>"));
  NodePtr node = FirstNode(parser.get());
  int count = 0;
  for (node = ChildNode(parser.get()); node; node = NextNode(parser.get())) ++count;
  EXPECT_EQ(1000000, count);
  EXPECT_LT(cpu_.Elapsed(), kSeconds);
}

TEST_F(Hostile, AHundredThousandAttributesOfOneElement) {
  std::string xml = "<a";
  for (int i = 0; i < 100000; ++i) xml += " n" + std::to_string(i) + "='1'";
  // Each once more, so that all are looked up among all.
  for (int i = 0; i < 100000; ++i) xml += " n" + std::to_string(i) + "='2'";
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse(xml + "/>"));
  const NodePtr node = FirstNode(parser.get());
  ASSERT_TRUE(node);
  ASSERT_EQ(200000U, node->attributes.size());
  EXPECT_EQ("n0", node->attributes[0]);
  EXPECT_EQ("2", node->attributes[1]);
  EXPECT_EQ("n99999", node->attributes[199998]);
  EXPECT_EQ("2", node->attributes[199999]);
  EXPECT_LT(cpu_.Elapsed(), kSeconds);
}

TEST_F(Hostile, NameOfTenMegabytes) {
  const std::string name(10 * 1024 * 1024, 'n');
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<" + name + "></" + name + ">"));
  EXPECT_EQ(name, FirstNode(parser.get())->name);
  EXPECT_FALSE(parser.Parse("<" + name + "></" + name + "n>"));
  EXPECT_FALSE(parser.Parse("<" + name));
  EXPECT_LT(cpu_.Elapsed(), kSeconds);
}

TEST_F(Hostile, TextsFullOfWhatMightEndThem) {
  for (const char* piece : {"-", "--", "]]", "/", "?", "\\<", "a ", "\xFF"}) {
    const std::string text = Repeated(piece, 1000000);
    ScopedXmlParser parser;
    ASSERT_TRUE(parser.Parse("<a><b/>x" + text + "</a>")) << piece;
    parser.Parse("<!-- " + text + " --><a/>");
    parser.Parse("<a><![CDATA[" + text + "]]></a>");
    parser.Parse("<a b='" + text + "'/>");
    parser.Parse("<a>" + text);
  }
  EXPECT_LT(cpu_.Elapsed(), 4 * kSeconds);
}

TEST_F(Hostile, OpeningsThatNeverClose) {
  for (const char* piece : {"<!--", "<![CDATA[", "<?", "<", "</", "<a ", "<a b='"}) {
    ScopedXmlParser parser;
    EXPECT_FALSE(parser.Parse("<r>" + Repeated(piece, 500000))) << piece;
  }
  EXPECT_LT(cpu_.Elapsed(), kSeconds);
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
