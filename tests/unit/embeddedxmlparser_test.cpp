#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <vexupnpcp/embeddedxmlparser.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

// A text that ends, with its NUL, at the edge of a heap block, so that a byte read too far is seen.
class Document {
 public:
  explicit Document(const std::string& text) : Document(text, static_cast<int>(text.size())) {}
  // Tells the scanner another size than the text has.
  Document(const std::string& text, int size) : buffer_(new char[text.size() + 1]) {
    std::memcpy(buffer_.get(), text.c_str(), text.size() + 1);
    initialized_ = EmXmlParser::InitializeCParser(buffer_.get(), size, parser_) == 0;
  }
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  DomParser* operator->() { return &parser_; }
  DomParser& operator*() { return parser_; }
  bool initialized() const { return initialized_; }
  long CursorAt() const { return parser_.cursor - buffer_.get(); }
  long TokenAt() const { return parser_.tokenStart - buffer_.get(); }
  int Parse() { return initialized_ ? EmXmlParser::ParseXmlData(parser_) : -1; }

 private:
  std::unique_ptr<char[]> buffer_;
  DomParser parser_;
  bool initialized_ = false;
};

void Print(const DomNode& node, std::string& out) {
  if (node.nodeType == kDomText) {
    out += std::string("'") + node.nodeValue + "'";
    return;
  }
  if (node.nodeType == kDomElement) out += std::string("(") + node.nodeName;
  for (const DomNode* a = node.attributes; a != nullptr; a = a->attributes) {
    out += std::string(" ") + a->nodeName + "=[" + a->nodeValue + "]";
  }
  int children = 0;
  for (const DomNode* child = node.firstChild; child != nullptr; child = child->nextSibling) {
    EXPECT_EQ(&node, child->parentNode);
    Print(*child, out);
    ++children;
  }
  EXPECT_EQ(children, node.childCount);
  if (node.nodeType == kDomElement) out += ")";
}

// The tree in one line: elements in brackets, texts in quotes; "FAULT nnn" when it is refused.
std::string TreeOf(const std::string& text) {
  const vex_test::LogCapture log;
  Document document(text);
  if (document.Parse() == 0) {
    EXPECT_TRUE(log.Lines().empty());
    std::string tree;
    Print(*document->document, tree);
    return tree;
  }
  const std::vector<vex_test::LogLine> lines = log.Lines();
  const std::string prefix = "Xml Parser Failure, Error ";
  if (lines.size() != 1 || lines[0].text.compare(0, prefix.size(), prefix) != 0) return "?";
  EXPECT_EQ(16, lines[0].level);
  EXPECT_EQ("VEX_CORE_UTILS", lines[0].tag);
  EXPECT_EQ("embeddedxmlparser.cpp", lines[0].file);
  return "FAULT " + lines[0].text.substr(prefix.size());
}

struct TokenRow {
  const char* text;
  int code;
  int length;
  int cursor;
};

class Token : public testing::TestWithParam<TokenRow> {};

TEST_P(Token, HasItsCodeLengthAndEnd) {
  const TokenRow& row = GetParam();
  Document document(row.text);
  EXPECT_EQ(row.code, EmXmlParser::NextToken(*document)) << row.text;
  EXPECT_EQ(row.length, document->tokenLength) << row.text;
  EXPECT_EQ(row.cursor, document.CursorAt()) << row.text;
  EXPECT_EQ(0, document.TokenAt()) << row.text;
}

INSTANTIATE_TEST_SUITE_P(
    Fixed, Token,
    testing::Values(TokenRow{"<!x", 0, 0, 1}, TokenRow{"<!", 0, 0, 1}, TokenRow{"<!-", 0, 0, 1},
                    TokenRow{"<![CDATA", 0, 0, 1}, TokenRow{"<?x", 1, 2, 2},
                    TokenRow{"?>x", 2, 2, 2}, TokenRow{"<!--x", 3, 4, 4}, TokenRow{"-->x", 4, 3, 3},
                    TokenRow{"'x", 5, 1, 1}, TokenRow{"\"x", 6, 1, 1}, TokenRow{"=x", 7, 1, 1},
                    TokenRow{"<x", 9, 1, 1}, TokenRow{"<", 9, 1, 1}, TokenRow{"</x", 10, 2, 2},
                    TokenRow{">x", 11, 1, 1}, TokenRow{"/>x", 12, 2, 2}, TokenRow{" x", 13, 1, 1},
                    TokenRow{" \n\t\r\fx", 13, 1, 5}, TokenRow{"  ", 13, 1, 2},
                    TokenRow{"<![CDATA[x", 14, 9, 9}, TokenRow{"]]>x", 15, 3, 3}));

INSTANTIATE_TEST_SUITE_P(RunEndsAtAMarkedCharacter, Token,
                         testing::Values(TokenRow{"ab<", 8, 2, 2}, TokenRow{"ab\"", 8, 2, 2},
                                         TokenRow{"ab'", 8, 2, 2}, TokenRow{"ab>", 8, 2, 2},
                                         TokenRow{"ab=", 8, 2, 2}, TokenRow{"ab\n", 8, 2, 2},
                                         TokenRow{"ab\t", 8, 2, 2}, TokenRow{"ab\r", 8, 2, 2},
                                         TokenRow{"ab\f", 8, 2, 2}, TokenRow{"ab ", 8, 2, 2},
                                         TokenRow{"ab!", 8, 2, 2}, TokenRow{"ab[", 8, 2, 2},
                                         TokenRow{"ab?>", 8, 2, 2}, TokenRow{"ab/>", 8, 2, 2},
                                         TokenRow{"ab-->", 8, 2, 2}, TokenRow{"ab]]>", 8, 2, 2}));

INSTANTIATE_TEST_SUITE_P(RunGoesOn, Token,
                         testing::Values(TokenRow{"a-b ", 8, 3, 3}, TokenRow{"a--b ", 8, 4, 4},
                                         TokenRow{"a-> ", 8, 2, 2}, TokenRow{"a/b ", 8, 3, 3},
                                         TokenRow{"a?b ", 8, 3, 3}, TokenRow{"a]b ", 8, 3, 3},
                                         TokenRow{"a]]b ", 8, 4, 4}, TokenRow{"a/ ", 8, 2, 2},
                                         TokenRow{"a--->", 8, 2, 2}, TokenRow{"a]]]>", 8, 2, 2},
                                         TokenRow{"a&b;c ", 8, 5, 5}, TokenRow{"a\vb ", 8, 3, 3},
                                         TokenRow{"\x80\xFF\xC3\xA9 ", 8, 4, 4}));

INSTANTIATE_TEST_SUITE_P(RunBeginsWithAMarkedCharacter, Token,
                         testing::Values(TokenRow{"-a ", 8, 2, 2}, TokenRow{"/a ", 8, 2, 2},
                                         TokenRow{"?a ", 8, 2, 2}, TokenRow{"]a ", 8, 2, 2},
                                         TokenRow{"!a ", 8, 2, 2}, TokenRow{"[a ", 8, 2, 2},
                                         TokenRow{"--a ", 8, 3, 3}, TokenRow{"!!", 8, 1, 1},
                                         TokenRow{"[[", 8, 1, 1}, TokenRow{"--->", 8, 1, 1},
                                         TokenRow{"]]]>", 8, 1, 1}, TokenRow{"//>", 8, 1, 1}));

INSTANTIATE_TEST_SUITE_P(RunIntoTheEnd, Token,
                         testing::Values(TokenRow{"a", -1, 1, 1}, TokenRow{"abc", -1, 3, 3},
                                         TokenRow{"-", -1, 1, 1}, TokenRow{"--", -1, 2, 2},
                                         TokenRow{"/", -1, 1, 1}, TokenRow{"?", -1, 1, 1},
                                         TokenRow{"]", -1, 1, 1}, TokenRow{"]]", -1, 2, 2},
                                         TokenRow{"a-", -1, 2, 2}, TokenRow{"a]]", -1, 3, 3},
                                         TokenRow{"a/", -1, 2, 2}, TokenRow{"!", -1, 1, 1}));

TEST(Scanner, EndOfTheTextIsAtItsNul) {
  Document document("> ");
  EXPECT_EQ(kXmlTokenTagEnd, EmXmlParser::NextToken(*document));
  EXPECT_EQ(kXmlTokenSpace, EmXmlParser::NextToken(*document));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(kXmlTokenEnd, EmXmlParser::NextToken(*document));
    EXPECT_EQ(0, document->tokenLength);
    EXPECT_EQ(2, document.CursorAt());
  }
}

TEST(Scanner, NothingIsReadBehindTheGivenEnd) {
  // One past the NUL that a text of one character would have.
  Document document("abcdef", 1);
  EXPECT_EQ(kXmlTokenEnd, EmXmlParser::NextToken(*document));
  EXPECT_EQ(2, document->tokenLength);
  EXPECT_EQ(2, document.CursorAt());
  EXPECT_EQ(kXmlTokenEnd, EmXmlParser::NextToken(*document));
  EXPECT_EQ(0, document->tokenLength);
  EXPECT_EQ(-1, EmXmlParser::NextToken2('d', *document));
}

TEST(Scanner, CodeOfEveryByteIsThatOfItsTableEntry) {
  const std::string marked = "<\"'>=\n\t\r\f ?/!-[]";
  for (int byte = 1; byte < 256; ++byte) {
    const char character = static_cast<char>(byte);
    Document document(std::string("a") + character + "b ");
    EXPECT_EQ(kXmlTokenText, EmXmlParser::NextToken(*document));
    const bool stays = std::strchr("?/-]", character) != nullptr;
    const bool ends = marked.find(character) != std::string::npos && !stays;
    EXPECT_EQ(ends ? 1 : 3, document->tokenLength) << byte;
  }
}

TEST(Scanner, SpacesAreSkippedToTheNextToken) {
  Document document(" \n x >");
  EXPECT_EQ(kXmlTokenText, EmXmlParser::SkipSpaces(*document));
  EXPECT_EQ(3, document.TokenAt());
  EXPECT_EQ(kXmlTokenTagEnd, EmXmlParser::SkipSpaces(*document));
  EXPECT_EQ(kXmlTokenEnd, EmXmlParser::SkipSpaces(*document));
}

struct ValueRow {
  const char* text;
  char delimiter;
  int result;
  int length;
};

class Value : public testing::TestWithParam<ValueRow> {};

TEST_P(Value, EndsAtItsDelimiter) {
  const ValueRow& row = GetParam();
  Document document(row.text);
  EXPECT_EQ(row.result, EmXmlParser::NextToken2(row.delimiter, *document)) << row.text;
  if (row.result == -1) return;
  EXPECT_EQ(row.length, document->tokenLength) << row.text;
  EXPECT_EQ(0, document.TokenAt()) << row.text;
  EXPECT_EQ(row.length, document.CursorAt()) << row.text;
}

INSTANTIATE_TEST_SUITE_P(
    All, Value,
    testing::Values(ValueRow{"", '<', -1, 0}, ValueRow{"<", '<', 0, 0},
                    ValueRow{"abc<d", '<', 8, 3}, ValueRow{"a<", '<', 8, 1},
                    ValueRow{" a <", '<', 8, 3}, ValueRow{"   <", '<', 13, 3},
                    ValueRow{" \n\t\r\f<", '<', 13, 5}, ValueRow{"\v<", '<', 8, 1},
                    ValueRow{"abc", '<', -1, 0}, ValueRow{"'\"<", '"', 8, 1},
                    ValueRow{"a\\\"b\"", '"', 8, 4}, ValueRow{"a\\\\\"b\"", '"', 8, 5},
                    ValueRow{"a\\\"", '"', -1, 0}, ValueRow{"ab\\<cd\\<ef<", '<', 8, 10},
                    ValueRow{"-->?>]]>=<", '<', 8, 9}));

TEST(Scanner, KeptBackslashAsFirstCharacterProtectsNothing) {
  Document document("\\\"b\"");
  EXPECT_EQ(8, EmXmlParser::NextToken2('"', *document));
  EXPECT_EQ(1, document->tokenLength);
}

TEST(Scanner, InitializingSetsAllFields) {
  Document document("<a/>");
  ASSERT_EQ(0, document.Parse());
  ASSERT_NE(nullptr, document->document);
  char text[] = "xy";
  ASSERT_EQ(0, EmXmlParser::InitializeCParser(text, 2, *document));
  EXPECT_EQ(text, document->buffer);
  EXPECT_EQ(text, document->cursor);
  EXPECT_EQ(text + 3, document->end);
  EXPECT_EQ(nullptr, document->tokenStart);
  EXPECT_EQ(nullptr, document->document);
  EXPECT_EQ(0, document->tokenLength);
  EXPECT_EQ(0, document->depth);
}

TEST(Scanner, NothingToScanIsInvalid) {
  DomParser parser;
  for (const int size : {0, -1}) {
    const vex_test::LogCapture log;
    EXPECT_EQ(-1, EmXmlParser::InitializeCParser("x", size, parser));
    EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Invalid inputs"));
  }
  const vex_test::LogCapture log;
  EXPECT_EQ(-1, EmXmlParser::InitializeCParser(nullptr, 1, parser));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Invalid inputs"));
}

struct FaultRow {
  const char* fault;
  const char* text;
};

class Fault : public testing::TestWithParam<FaultRow> {};

TEST_P(Fault, HasItsNumber) {
  EXPECT_EQ(std::string("FAULT ") + GetParam().fault, TreeOf(GetParam().text)) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Comment, Fault,
                         testing::Values(FaultRow{"001", "<!-- x"}, FaultRow{"001", "<a><!-- x --"},
                                         FaultRow{"001", "<!-- <!-->"}, FaultRow{"001", "<!-->"}));
INSTANTIATE_TEST_SUITE_P(Cdata, Fault,
                         testing::Values(FaultRow{"002", "<a><![CDATA[x"},
                                         FaultRow{"002", "<a><![CDATA[x]]</a>"}));
INSTANTIATE_TEST_SUITE_P(Instruction, Fault,
                         testing::Values(FaultRow{"003", "<?xml "}, FaultRow{"003", "<a/><?x >"},
                                         FaultRow{"003", "<?"}));
INSTANTIATE_TEST_SUITE_P(StartTag, Fault,
                         testing::Values(FaultRow{"004", "<>"}, FaultRow{"004", "< a/>"},
                                         FaultRow{"004", "<"}, FaultRow{"004", "<a"},
                                         FaultRow{"004", "<=a>"}, FaultRow{"006", "<a "},
                                         FaultRow{"006", "<a =\"b\">"},
                                         FaultRow{"006", "<a \"b\">"},
                                         FaultRow{"006", "<a b=\"c\""}, FaultRow{"006", "<a <b/>"},
                                         FaultRow{"006", "<a b=\"c\" "}, FaultRow{"006", "<a b"}));
INSTANTIATE_TEST_SUITE_P(Attribute, Fault,
                         testing::Values(FaultRow{"007", "<a b>"}, FaultRow{"007", "<a b />"},
                                         FaultRow{"007", "<a b\"c\">"},
                                         FaultRow{"007", "<a b c=\"d\">"}, FaultRow{"007", "<a b "},
                                         FaultRow{"008", "<a b=\"c"},
                                         FaultRow{"008", "<a b=\"c\\\">"},
                                         FaultRow{"008", "<a b=\"c'>"}, FaultRow{"008", "<a b=\""},
                                         FaultRow{"009", "<a b=c>"}, FaultRow{"009", "<a b=>"},
                                         FaultRow{"009", "<a b="},
                                         FaultRow{"009", "<a b==\"c\">"}));
INSTANTIATE_TEST_SUITE_P(Content, Fault,
                         testing::Values(FaultRow{"010", "<a>"}, FaultRow{"010", "<a>text"},
                                         FaultRow{"010", "<a>  "}, FaultRow{"010", "<a>b\\<"},
                                         FaultRow{"016", "<a><b/>x y"}, FaultRow{"020", "<a><b/>x"},
                                         FaultRow{"021", "<a><b/>"}, FaultRow{"021", "<a><b></b> "},
                                         FaultRow{"021", "<a><!-- c -->"}));
INSTANTIATE_TEST_SUITE_P(EndTag, Fault,
                         testing::Values(FaultRow{"012", "<a></>"}, FaultRow{"012", "<a></ >"},
                                         FaultRow{"012", "<a></"}, FaultRow{"012", "<a></a"},
                                         FaultRow{"013", "<a></a "}, FaultRow{"013", "<a></a b>"},
                                         FaultRow{"013", "<a></a/>"},
                                         FaultRow{"014", "<a><b></a></b>"}, FaultRow{"014", "</a>"},
                                         FaultRow{"014", "<a/></a>"}, FaultRow{"014", "<a></A>"},
                                         FaultRow{"014", "<a></ab>"}, FaultRow{"014", "<ab></a>"},
                                         FaultRow{"014", "</#document>"},
                                         FaultRow{"014", "<a/></#document>"}));
INSTANTIATE_TEST_SUITE_P(BesideTheRoot, Fault,
                         testing::Values(FaultRow{"015", "x <a/>"}, FaultRow{"015", "<a/>x "},
                                         FaultRow{"015", "<a></a>text\n"}, FaultRow{"020", "x"},
                                         FaultRow{"020", "<a/>x"},
                                         FaultRow{"015", "\xEF\xBB\xBF<a/>"},
                                         FaultRow{"015", "\xFF\xFE<"}));
INSTANTIATE_TEST_SUITE_P(Unexpected, Fault,
                         testing::Values(FaultRow{"023", "<!DOCTYPE a><a/>"},
                                         FaultRow{"023", "<!ENTITY x \"y\">"},
                                         FaultRow{"023", "<a/>="}, FaultRow{"023", "<a/>>"},
                                         FaultRow{"023", "<a/>'"}, FaultRow{"023", "<a/>\""},
                                         FaultRow{"023", "<a/>-->"}, FaultRow{"023", "<a/>?>"},
                                         FaultRow{"023", "<a/>]]>"}, FaultRow{"023", "<a/>/>"},
                                         FaultRow{"023", "<a><b/>=</a>"}));

TEST(XmlDocument, CursorBehindTheEndIsAFault) {
  const vex_test::LogCapture log;
  Document document("<a/>", 3);
  EXPECT_EQ(-1, document.Parse());
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Xml Parser Failure, Error 022"));
}

struct TreeRow {
  const char* tree;
  const char* text;
};

class Tree : public testing::TestWithParam<TreeRow> {};

TEST_P(Tree, IsRead) { EXPECT_EQ(GetParam().tree, TreeOf(GetParam().text)) << GetParam().text; }

INSTANTIATE_TEST_SUITE_P(Elements, Tree,
                         testing::Values(TreeRow{"(a)", "<a/>"}, TreeRow{"(a)", "<a></a>"},
                                         TreeRow{"(a)", "<a />"}, TreeRow{"(a)", "<a ></a >"},
                                         TreeRow{"(a)", "<a\n>\n</ a\t>"},
                                         TreeRow{"(a'x')", "<a>x</a>"},
                                         TreeRow{"(a' x ')", "<a> x </a>"},
                                         TreeRow{"(a(b)(c'y'(d))'z')", "<a><b/><c>y<d/></c>z</a>"},
                                         TreeRow{"(a(b)'x ')", "<a> <b/> x </a>"},
                                         TreeRow{"(a)(b)", "<a/><b/>"}, TreeRow{"", "<!-- c -->"},
                                         TreeRow{"", "  "}, TreeRow{"", "<?xml version=\"1.0\"?>"},
                                         TreeRow{"(a:b.c-d_e)", "<a:b.c-d_e></a:b.c-d_e>"},
                                         TreeRow{"(a-)", "<a- ></a- >"}));

INSTANTIATE_TEST_SUITE_P(
    AttributesOfElements, Tree,
    testing::Values(TreeRow{"(a b=[c])", "<a b=\"c\"/>"}, TreeRow{"(a b=[c])", "<a b='c'></a>"},
                    TreeRow{"(a b=[c] d=[e])", "<a\tb = 'c'\nd= \"e\" />"},
                    TreeRow{"(a b=[])", "<a b=\"\"/>"}, TreeRow{"(a b=[ ])", "<a b=\" \"/>"},
                    TreeRow{"(a b=[c] d=[e])", "<a b='c'd='e'/>"},
                    TreeRow{"(a b=[2] c=[x])", "<a b='1' c='x' b='2'/>"},
                    TreeRow{"(a b=[it's])", "<a b=\"it's\"/>"},
                    TreeRow{"(a b=[x\\\"y])", "<a b=\"x\\\"y\"/>"},
                    TreeRow{"(a b=[<>])", "<a b=\"<>\"/>"}, TreeRow{"(a b=[/>])", "<a b='/>'/>"}));

INSTANTIATE_TEST_SUITE_P(
    WhatIsReadPast, Tree,
    testing::Values(TreeRow{"(a)", "<?xml version=\"1.0\"?>\n<!-- c -->\n<a/>\n<!-- d -->"},
                    TreeRow{"(a)", "<a><![CDATA[x]]></a>"},
                    TreeRow{"(a)", "<a><![CDATA[<b>&]] > ]]]></a>"},
                    TreeRow{"(a'x''y')", "<a>x<!-- c -->y</a>"},
                    TreeRow{"(a'x''y')", "<a>x<![CDATA[c]]>y</a>"},
                    TreeRow{"(a'x''y')", "<a>x<?c d?>y</a>"}, TreeRow{"(a'x')", "<a>x<?c?\?></a>"},
                    TreeRow{"(a)", "<a><!-- <b> & -- ---></a>"},
                    TreeRow{"(a'y')", "<a><!-- c -->y</a>"}, TreeRow{"(a)", "<a><!----></a>"},
                    TreeRow{"(a(b))", "<![CDATA[x]]><a><?x ?><b/><![CDATA[y]]></a>"}));

TEST(XmlDocument, KeptProtectedTagStartStaysInTheText) {
  EXPECT_EQ("(a'x\\<b/>y')", TreeOf("<a>x\\<b/>y</a>"));
}

TEST(XmlDocument, KeptEmptyTagIsNoOpenElement) { EXPECT_EQ("(a(b))", TreeOf("<a><b/></a>")); }

TEST(XmlDocument, NamesThatATokenWouldCutEndLikeTheyBegan) {
  EXPECT_EQ("(a/)", TreeOf("<a/ ></a/ >"));
  EXPECT_EQ("FAULT 013", TreeOf("<a/ ></a/>"));
  EXPECT_EQ("FAULT 013", TreeOf("<a? ></a?>"));
  EXPECT_EQ("(a?)", TreeOf("<a? ></a? >"));
  EXPECT_EQ("FAULT 013", TreeOf("<a-- ></a-->"));
  EXPECT_EQ("(a-)", TreeOf("<a- ></a->"));
  EXPECT_EQ("(a])", TreeOf("<a]></a]>"));
  EXPECT_EQ("FAULT 013", TreeOf("<a]] ></a]]>"));
}

TEST(XmlDocument, DepthAndDocumentAreSet) {
  Document document("<a><b/></a>");
  ASSERT_EQ(0, document.Parse());
  EXPECT_EQ(0, document->depth);
  EXPECT_EQ(kDomDocument, document->document->nodeType);
  EXPECT_EQ(document->document, document->document->firstChild->firstChild->ownerDocument);
  EXPECT_EQ(&*document, document->document->firstChild->domParser);
}

// Faults that come up when one allocation after the other fails, in order; ends with "" for
// success.
std::vector<std::string> FaultsShortOfMemory(const std::string& text) {
  std::vector<std::string> faults;
  bool failed = true;
  for (int nth = 1; failed; ++nth) {
    const vex_test::LogCapture log;
    Document document(text);
    int result = 0;
    {
      const vex_test::FailAlloc fail(nth);
      result = document.Parse();
      failed = fail.Failed();
    }
    EXPECT_EQ(failed ? -1 : 0, result);
    faults.push_back(failed ? log.Lines().back().text : "");
  }
  return faults;
}

// The first nodes come in one piece of memory; the piece that fails last is for the ninth.
TEST(XmlDocument, ShortageHasTheNumberOfWhatWasToBeMade) {
  const auto last_fault = [](const std::string& text) {
    const std::vector<std::string> faults = FaultsShortOfMemory(text);
    EXPECT_EQ("CreateDocumentDomDocument failed", faults[0]);
    return faults[faults.size() - 2];
  };
  EXPECT_EQ("Xml Parser Failure, Error 005", last_fault("<r><a/><a/><a/><a/><a/><a/><b/></r>"));
  EXPECT_EQ("Xml Parser Failure, Error 011", last_fault("<r><a/><a/><a/><a/><a/><b>t</b></r>"));
  EXPECT_EQ("Xml Parser Failure, Error 017", last_fault("<r><a/><a/><a/><a/><a/><a/>t</r>"));
  EXPECT_EQ("Xml Parser Failure, Error 005", last_fault("<r><a/><a/><a/><a/><a/><a c='d'/></r>"));
}

TEST(XmlDocument, ShortageOfTheAttributeIndexIsAFault) {
  std::string text = "<a";
  for (int i = 0; i < 40; ++i) text += " n" + std::to_string(i) + "=''";
  const std::vector<std::string> faults = FaultsShortOfMemory(text + "/>");
  EXPECT_LT(40U, faults.size());
  for (std::size_t i = 3; i + 1 < faults.size(); ++i) {
    EXPECT_EQ("Xml Parser Failure, Error 005", faults[i]);
  }
}

// No cut leads the scanner over the edge, and none is taken for the whole.
TEST(XmlDocument, EveryCutIsRefusedOrReadWithinItsBounds) {
  const std::string whole =
      "<?xml version=\"1.0\"?><!-- c --><a b='c' d=\"e\\\"f\"> x <g/><![CDATA[h]]>y</a>";
  EXPECT_EQ("(a b=[c] d=[e\\\"f]' x '(g)'y')", TreeOf(whole));
  for (std::size_t length = 1; length < whole.size(); ++length) {
    const std::string tree = TreeOf(whole.substr(0, length));
    const bool prolog_only = length == 21 || length == 31;
    EXPECT_EQ(prolog_only ? "" : "FAULT", tree.substr(0, 5)) << length;
  }
}

TEST(XmlDocument, NoMutilationLeadsOverTheEdge) {
  const std::string whole = "<?x?><a b='c'><!--d--><e f=\"g\"/>h<![CDATA[i]]></a>";
  const std::string odd = std::string("<>/!?-[]='\"& \n\\a\x80", 17) + '\0';
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char character : odd) {
      std::string text = whole;
      text[at] = character;
      Document replaced(text);
      replaced.Parse();
      Document inserted(whole.substr(0, at) + character + whole.substr(at));
      inserted.Parse();
      Document cut(whole.substr(0, at) + character);
      cut.Parse();
    }
  }
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
