#include <vexupnpcp/xmlparser.h>

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "xmlparser/src/xml_scope.h"

namespace vex_upnp {
namespace utils {
namespace {

using testing::ElementsAre;

std::string NameOf(const NodePtr& node) { return node ? node->name : "none"; }

// The value of a document's root element.
std::string RootValue(const std::string& xml) {
  ScopedXmlParser parser;
  if (!parser.Parse(xml)) return "refused";
  const NodePtr root = FirstNode(parser.get());
  return root ? root->value : "no root";
}

TEST(XmlAccess, EmptyTextIsNoFailureLine) {
  const vex_test::LogCapture log;
  XmlParser parser;
  EXPECT_EQ(0, XmlParserGetDomMA("", parser));
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "Empty string"));
  EXPECT_EQ(1U, log.Lines().size());
}

TEST(XmlAccess, FaultIsLoggedTwice) {
  const vex_test::LogCapture log;
  XmlParser parser;
  EXPECT_EQ(0, XmlParserGetDomMA("<a><b></a></b>", parser));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Xml Parser Failure, Error 014"));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "XMLParserInit failed"));
}

TEST(XmlAccess, ValueIsTheTextWithWhichTheContentBegins) {
  EXPECT_EQ("", RootValue("<a/>"));
  EXPECT_EQ("", RootValue("<a></a>"));
  EXPECT_EQ(" x ", RootValue("<a> x </a>"));
  EXPECT_EQ("", RootValue("<a> \n </a>"));
  EXPECT_EQ("x", RootValue("<a>x<b/>y</a>"));
  EXPECT_EQ("", RootValue("<a><b/>y</a>"));
  EXPECT_EQ("x", RootValue("<a>x<!-- c -->y</a>"));
  EXPECT_EQ("y", RootValue("<a><!-- c -->y</a>"));
  EXPECT_EQ("", RootValue("<a><![CDATA[x]]></a>"));
  EXPECT_EQ("&lt;x&gt;", RootValue("<a>&lt;x&gt;</a>"));
}

TEST(XmlAccess, DocumentWithoutElementHasNoRoot) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<!-- c -->"));
  NodeXml untouched;
  NodeXml* node = &untouched;
  EXPECT_EQ(0, XmlParserGetFirstNode(parser.get(), node));
  EXPECT_EQ(nullptr, node);
}

TEST(XmlAccess, UnparsedRecordGivesNothing) {
  XmlParser parser;
  NodeXml* node = nullptr;
  int number = 7;
  EXPECT_EQ(0, XmlParserGetFirstNode(parser, node));
  EXPECT_EQ(0, XmlParserGetChildNode(parser, node));
  EXPECT_EQ(0, XmlParserGetNextNode(parser, node));
  EXPECT_EQ(0, XmlGetCurrentNodeChildCount(parser, number));
  EXPECT_EQ(0, XmlGetCurNodeFirstChildType(parser, number));
  EXPECT_EQ(7, number);
  XmlParserStepBackToParentNode(parser);
  XmlParserFreeNode(nullptr);
  XmlParserDestroy(parser);
}

class Cursor : public testing::Test {
 protected:
  void Open(const std::string& xml) {
    ASSERT_TRUE(parser_.Parse(xml));
    root_ = FirstNode(parser_.get());
    ASSERT_TRUE(root_);
  }
  NodePtr Child() { return ChildNode(parser_.get()); }
  NodePtr Next() { return NextNode(parser_.get()); }
  void Back() { XmlParserStepBackToParentNode(parser_.get()); }

  ScopedXmlParser parser_;
  NodePtr root_;
};

TEST_F(Cursor, DescendsGoesOnAndStepsBack) {
  Open("<r><a><b/><c/></a><d>x</d></r>");
  EXPECT_EQ("r", root_->name);
  EXPECT_EQ("a", NameOf(Child()));
  EXPECT_EQ("b", NameOf(Child()));
  EXPECT_EQ("c", NameOf(Next()));
  EXPECT_EQ("none", NameOf(Next()));
  Back();
  EXPECT_EQ("d", NameOf(Next()));
  EXPECT_EQ("none", NameOf(Next()));
  Back();
  EXPECT_EQ("a", NameOf(Child()));
}

TEST_F(Cursor, KeptChildlessElementClearsItUntilSteppingBack) {
  Open("<r><a/><b/></r>");
  EXPECT_EQ("a", NameOf(Child()));
  EXPECT_EQ("none", NameOf(Child()));
  EXPECT_EQ("none", NameOf(Child()));
  EXPECT_EQ("none", NameOf(Next()));
  Back();
  EXPECT_EQ("b", NameOf(Next()));
}

TEST_F(Cursor, KeptTextAsFirstChildClearsItUntilSteppingBack) {
  Open("<r><a>x<c/></a><b/></r>");
  EXPECT_EQ("a", NameOf(Child()));
  EXPECT_EQ("none", NameOf(Child()));
  EXPECT_EQ("none", NameOf(Next()));
  Back();
  EXPECT_EQ("b", NameOf(Next()));
}

TEST_F(Cursor, KeptTextBetweenElementsEndsTheWalk) {
  Open("<r><a/>text<b/></r>");
  EXPECT_EQ("a", NameOf(Child()));
  EXPECT_EQ("none", NameOf(Next()));
  EXPECT_EQ("none", NameOf(Next()));
  Back();
  EXPECT_EQ("a", NameOf(Child()));
}

TEST_F(Cursor, StepsBackLevelByLevelAndThenNowhere) {
  Open("<r><a><b/></a></r>");
  Child();
  Child();
  Back();
  EXPECT_STREQ("a", parser_.get().currentNode->nodeName);
  Back();
  EXPECT_STREQ("r", parser_.get().currentNode->nodeName);
  Back();
  EXPECT_STREQ("#document", parser_.get().currentNode->nodeName);
  Back();
  EXPECT_EQ(nullptr, parser_.get().currentNode);
  Back();
}

TEST_F(Cursor, FirstNodeComesBackToTheRoot) {
  Open("<r><a><b/></a></r>");
  Child();
  Child();
  EXPECT_EQ("r", NameOf(FirstNode(parser_.get())));
  EXPECT_EQ(nullptr, parser_.get().parentNode);
  EXPECT_EQ("a", NameOf(Child()));
}

TEST_F(Cursor, CountsChildrenTextsIncluded) {
  Open("<r>x<a/><b/></r>");
  int number = 0;
  EXPECT_EQ(1, XmlGetCurrentNodeChildCount(parser_.get(), number));
  EXPECT_EQ(3, number);
  EXPECT_EQ(1, XmlGetCurNodeFirstChildType(parser_.get(), number));
  EXPECT_EQ(3, number);
  EXPECT_EQ(kDomText, number);
}

TEST_F(Cursor, TellsTheKindOfTheFirstChild) {
  Open("<r><a/></r>");
  int number = 0;
  EXPECT_EQ(1, XmlGetCurNodeFirstChildType(parser_.get(), number));
  EXPECT_EQ(1, number);
  EXPECT_EQ("a", NameOf(Child()));
  EXPECT_EQ(1, XmlGetCurrentNodeChildCount(parser_.get(), number));
  EXPECT_EQ(0, number);
  number = 7;
  EXPECT_EQ(0, XmlGetCurNodeFirstChildType(parser_.get(), number));
  EXPECT_EQ(7, number);
}

class AttributesOfANode : public testing::Test {
 protected:
  AttributesOfANode() { node_.attributes = {"val", "1", "value", "2", "x", "3"}; }

  int Get(std::string name) { return XmlGetAttribute(&node_, name, out_); }
  int GetName(std::string name) { return XmlGetAttributeName(&node_, name, out_); }

  NodeXml node_;
  std::string out_ = "untouched";
};

TEST_F(AttributesOfANode, KeptBeginningOfANameFindsIt) {
  EXPECT_EQ(1, Get("va"));
  EXPECT_EQ("1", out_);
  EXPECT_EQ(1, Get("valu"));
  EXPECT_EQ("2", out_);
  EXPECT_EQ(1, Get("x"));
  EXPECT_EQ("3", out_);
}

TEST_F(AttributesOfANode, LongerOrOtherNamesFindNothing) {
  EXPECT_EQ(0, Get("values"));
  EXPECT_EQ(0, Get("VAL"));
  EXPECT_EQ(0, Get("1"));
  EXPECT_EQ("untouched", out_);
}

TEST_F(AttributesOfANode, WholeNameCanBeAskedFor) {
  EXPECT_EQ(1, XmlGetAttributeChar(&node_, "value", out_));
  EXPECT_EQ("2", out_);
  out_ = "untouched";
  EXPECT_EQ(0, XmlGetAttributeChar(&node_, "va", out_));
  EXPECT_EQ("untouched", out_);
}

TEST_F(AttributesOfANode, FoundNameCanBeRead) {
  EXPECT_EQ(1, GetName("valu"));
  EXPECT_EQ("value", out_);
  EXPECT_EQ(0, GetName("y"));
}

TEST_F(AttributesOfANode, AllAreCopied) {
  std::vector<std::string> all{"old"};
  EXPECT_EQ(1, XmlGetAllNodeAttributes(&node_, all));
  EXPECT_THAT(all, ElementsAre("val", "1", "value", "2", "x", "3"));
}

TEST_F(AttributesOfANode, NullNodeHasNone) {
  std::string name = "x";
  std::vector<std::string> all{"old"};
  EXPECT_EQ(0, XmlGetAttribute(nullptr, name, out_));
  EXPECT_EQ(0, XmlGetAttributeChar(nullptr, name, out_));
  EXPECT_EQ(0, XmlGetAttributeName(nullptr, name, out_));
  EXPECT_EQ(0, XmlGetAllNodeAttributes(nullptr, all));
  EXPECT_EQ("untouched", out_);
  EXPECT_THAT(all, ElementsAre("old"));
}

TEST(XmlAccess, BackslashProtectsAQuoteInAnAttribute) {
  ScopedXmlParser parser;
  ASSERT_TRUE(parser.Parse("<a b=\"x\\\"y\" c='1' c='2'/>"));
  const NodePtr root = FirstNode(parser.get());
  ASSERT_TRUE(root);
  EXPECT_THAT(root->attributes, ElementsAre("b", "x\\\"y", "c", "2"));
}

TEST(XmlAccess, ShortageOfMemoryIsAFailureAndNoThrow) {
  const std::string xml =
      "<root attribute='a value that is no short string'>text, also long enough "
      "for the heap<child/></root>";
  bool failed = true;
  for (int nth = 1; failed; ++nth) {
    ScopedXmlParser parser;
    NodePtr root;
    std::string name = "attr";
    std::string value = "untouched";
    std::vector<std::string> all{"untouched"};
    int got = 0;
    {
      const vex_test::FailAlloc fail(nth);
      if (parser.Parse(xml)) root = FirstNode(parser.get());
      got += XmlGetAttribute(root.get(), name, value);
      got += XmlGetAllNodeAttributes(root.get(), all);
      failed = fail.Failed();
    }
    EXPECT_EQ(failed, got < 2) << nth;
    if (!failed) {
      EXPECT_LT(5, nth);
    }
  }
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
