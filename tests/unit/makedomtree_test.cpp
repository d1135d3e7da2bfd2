#include <gmock/gmock.h>

#include <set>
#include <string>
#include <vector>

#include <vexupnpcp/embeddedxmlparser.h>
#include <vexupnpcp/makedomtree.h>
#include <vexupnpcp/result_codes.h>

#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace utils {
namespace {

using testing::ElementsAre;
using Dom = MakeDomTree;

class DomTree : public testing::Test {
 protected:
  DomTree() { EXPECT_EQ(1, Dom::CreateDocumentDomDocument(parser_, document_)); }

  DomNode* Element(const char* name) {
    return Dom::CreateElementDomDocument(document_, const_cast<char*>(name));
  }
  DomNode* Text(const char* text) {
    return Dom::CreateTextNodeDomDocument(document_, const_cast<char*>(text));
  }
  DomNode* Add(DomNode* parent, DomNode* child) {
    EXPECT_EQ(child, Dom::InsertBeforeDomNode(parent, child, nullptr));
    return child;
  }

  DomParser parser_;
  DomNode* document_ = nullptr;
};

std::vector<std::string> Children(const DomNode& parent) {
  std::vector<std::string> names;
  const DomNode* previous = nullptr;
  for (const DomNode* node = parent.firstChild; node != nullptr; node = node->nextSibling) {
    EXPECT_EQ(&parent, node->parentNode);
    EXPECT_EQ(previous, node->previousSibling);
    names.emplace_back(node->nodeName);
    previous = node;
  }
  EXPECT_EQ(previous, parent.lastChild);
  return names;
}

std::vector<std::string> Attributes(const DomNode& element) {
  std::vector<std::string> pairs;
  for (const DomNode* node = element.attributes; node != nullptr; node = node->attributes) {
    EXPECT_EQ(kDomAttribute, node->nodeType);
    EXPECT_EQ(nullptr, node->parentNode);
    pairs.push_back(std::string(node->nodeName) + "=" + node->nodeValue);
  }
  EXPECT_EQ(static_cast<std::size_t>(element.attributeCount), pairs.size());
  return pairs;
}

void ExpectOneInvalidInput(const vex_test::LogCapture& log, const char* text = "Invalid inputs") {
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", text));
  EXPECT_EQ(1U, log.Lines().size());
}

TEST_F(DomTree, NewNodeIsZeroedAndKnowsItsParser) {
  DomNode* const node = Dom::AllocateANode(&parser_);
  ASSERT_NE(nullptr, node);
  EXPECT_EQ(nullptr, node->nodeName);
  EXPECT_EQ(nullptr, node->nodeValue);
  EXPECT_EQ(0, node->nodeType);
  EXPECT_EQ(0, node->childCount);
  EXPECT_EQ(nullptr, node->parentNode);
  EXPECT_EQ(nullptr, node->firstChild);
  EXPECT_EQ(nullptr, node->lastChild);
  EXPECT_EQ(nullptr, node->previousSibling);
  EXPECT_EQ(nullptr, node->nextSibling);
  EXPECT_EQ(0, node->attributeCount);
  EXPECT_EQ(nullptr, node->attributes);
  EXPECT_EQ(nullptr, node->ownerDocument);
  EXPECT_EQ(&parser_, node->domParser);
  EXPECT_EQ(0, Dom::ClearDomNode(node));
}

TEST_F(DomTree, NodeWithoutParserStandsAlone) {
  DomNode* const node = Dom::AllocateANode(nullptr);
  ASSERT_NE(nullptr, node);
  EXPECT_EQ(nullptr, node->domParser);
  EXPECT_EQ(0, Dom::ClearDomNode(node));
}

TEST_F(DomTree, ClearingNullIsBadInput) {
  EXPECT_EQ(3001, Dom::ClearDomNode(nullptr));
  EXPECT_EQ(result::kBadInput, Dom::ClearDomNode(nullptr));
}

TEST_F(DomTree, FirstDocumentIsStoredInTheParser) {
  EXPECT_EQ(document_, parser_.document);
  EXPECT_STREQ("#document", document_->nodeName);
  EXPECT_EQ(9, document_->nodeType);
  EXPECT_EQ(document_, document_->ownerDocument);
  EXPECT_EQ(nullptr, document_->parentNode);
  DomNode* second = nullptr;
  EXPECT_EQ(1, Dom::CreateDocumentDomDocument(parser_, second));
  EXPECT_NE(document_, second);
  EXPECT_EQ(document_, parser_.document);
}

TEST_F(DomTree, EachKindHasItsFields) {
  const DomNode* const element = Element("a");
  EXPECT_STREQ("a", element->nodeName);
  EXPECT_EQ(nullptr, element->nodeValue);
  EXPECT_EQ(1, element->nodeType);
  const DomNode* const text = Text("value");
  EXPECT_STREQ("#text", text->nodeName);
  EXPECT_STREQ("value", text->nodeValue);
  EXPECT_EQ(3, text->nodeType);
  const DomNode* const attribute = Dom::CreateAttributeDomDocument(document_, "b");
  EXPECT_STREQ("b", attribute->nodeName);
  EXPECT_EQ(2, attribute->nodeType);
  for (const DomNode* node : {element, text, attribute}) {
    EXPECT_EQ(document_, node->ownerDocument);
    EXPECT_EQ(&parser_, node->domParser);
    EXPECT_EQ(nullptr, node->parentNode);
  }
}

TEST_F(DomTree, NullArgumentsAreInvalidInputs) {
  char name[] = "a";
  DomNode* const element = Element("e");
  const auto expect_refused = [](auto call) {
    const vex_test::LogCapture log;
    EXPECT_TRUE(call());
    ExpectOneInvalidInput(log);
  };
  expect_refused([&] { return Dom::CreateElementDomDocument(nullptr, name) == nullptr; });
  expect_refused([&] { return Dom::CreateElementDomDocument(document_, nullptr) == nullptr; });
  expect_refused([&] { return Dom::CreateTextNodeDomDocument(nullptr, name) == nullptr; });
  expect_refused([&] { return Dom::CreateTextNodeDomDocument(document_, nullptr) == nullptr; });
  expect_refused([&] { return Dom::CreateAttributeDomDocument(nullptr, name) == nullptr; });
  expect_refused([&] { return Dom::CreateAttributeDomDocument(document_, nullptr) == nullptr; });
  expect_refused([&] { return Dom::SetAttributeDomElement(nullptr, name, name) == 0; });
  expect_refused([&] { return Dom::SetAttributeDomElement(element, nullptr, name) == 0; });
  expect_refused([&] { return Dom::InsertBeforeDomNode(nullptr, element, nullptr) == nullptr; });
  expect_refused([&] { return Dom::InsertBeforeDomNode(element, nullptr, nullptr) == nullptr; });
  expect_refused([&] { return Dom::GetFirstChildDomNode(nullptr) == nullptr; });
  expect_refused([&] { return Dom::GetFirstChildDomDocument(nullptr) == nullptr; });
  expect_refused([&] { return Dom::FreeDomNode(nullptr), true; });
}

TEST_F(DomTree, RepeatedAttributeKeepsItsPlaceAndTakesTheLastValue) {
  DomNode* const element = Element("a");
  EXPECT_EQ(1, Dom::SetAttributeDomElement(element, "x", "1"));
  EXPECT_EQ(1, Dom::SetAttributeDomElement(element, "y", "2"));
  EXPECT_EQ(1, Dom::SetAttributeDomElement(element, "x", "3"));
  EXPECT_THAT(Attributes(*element), ElementsAre("x=3", "y=2"));
}

TEST_F(DomTree, AttributeSetTwiceCountsOnce) {
  DomNode* const element = Element("a");
  Dom::SetAttributeDomElement(element, "x", "1");
  Dom::SetAttributeDomElement(element, "x", "2");
  EXPECT_EQ(1, element->attributeCount);
  EXPECT_THAT(Attributes(*element), ElementsAre("x=2"));
}

TEST_F(DomTree, AttributeNamesAreComparedExactly) {
  DomNode* const element = Element("a");
  Dom::SetAttributeDomElement(element, "x", "1");
  Dom::SetAttributeDomElement(element, "X", "2");
  Dom::SetAttributeDomElement(element, "xx", "3");
  EXPECT_THAT(Attributes(*element), ElementsAre("x=1", "X=2", "xx=3"));
}

TEST_F(DomTree, ManyAttributesKeepOrderAndLastValue) {
  std::vector<std::string> names;
  for (int i = 0; i < 200; ++i) names.push_back("n" + std::to_string(i));
  DomNode* const first = Element("a");
  DomNode* const second = Element("b");
  std::vector<std::string> expected;
  for (const std::string& name : names) {
    // Two elements in turn, so that the index of one meets the other.
    ASSERT_EQ(1, Dom::SetAttributeDomElement(first, name.c_str(), "old"));
    ASSERT_EQ(1, Dom::SetAttributeDomElement(second, name.c_str(), "other"));
    expected.push_back(name + "=" + (name == "n7" || name == "n150" ? "new" : "old"));
  }
  EXPECT_EQ(1, Dom::SetAttributeDomElement(first, "n7", "new"));
  EXPECT_EQ(1, Dom::SetAttributeDomElement(first, "n150", "new"));
  EXPECT_EQ(200, first->attributeCount);
  EXPECT_EQ(expected, Attributes(*first));
  EXPECT_EQ(200, second->attributeCount);
}

TEST_F(DomTree, IndexOfAFreedElementIsForgotten) {
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) names.push_back("n" + std::to_string(i));
  for (int round = 0; round < 2; ++round) {
    DomNode* const element = Element("a");
    for (const std::string& name : names) Dom::SetAttributeDomElement(element, name.c_str(), "v");
    EXPECT_EQ(40U, Attributes(*element).size());
    Dom::FreeDomNode(element);
  }
}

TEST_F(DomTree, AttributeOfAnElementWithoutDocumentFails) {
  DomNode* const element = Dom::AllocateANode(&parser_);
  element->nodeType = kDomElement;
  const vex_test::LogCapture log;
  EXPECT_EQ(0, Dom::SetAttributeDomElement(element, "x", "1"));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "CreateAttributeDomDocument failed"));
  EXPECT_EQ(0, element->attributeCount);
  Dom::ClearDomNode(element);
}

TEST_F(DomTree, ChildrenAreAppendedInOrder) {
  DomNode* const root = Add(document_, Element("root"));
  Add(root, Element("a"));
  Add(root, Text("t"));
  Add(root, Element("b"));
  EXPECT_THAT(Children(*root), ElementsAre("a", "#text", "b"));
  EXPECT_EQ(3, root->childCount);
  EXPECT_EQ(root, Dom::GetFirstChildDomDocument(document_));
  EXPECT_STREQ("a", Dom::GetFirstChildDomNode(root)->nodeName);
}

TEST_F(DomTree, ChildGoesInFrontOfAReference) {
  DomNode* const root = Element("root");
  DomNode* const c = Add(root, Element("c"));
  DomNode* const a = Element("a");
  EXPECT_EQ(a, Dom::InsertBeforeDomNode(root, a, c));
  DomNode* const b = Element("b");
  EXPECT_EQ(b, Dom::InsertBeforeDomNode(root, b, c));
  EXPECT_THAT(Children(*root), ElementsAre("a", "b", "c"));
  EXPECT_EQ(3, root->childCount);
}

TEST_F(DomTree, ReferenceIsIgnoredInAChildlessParent) {
  DomNode* const root = Element("root");
  DomNode* const a = Element("a");
  EXPECT_EQ(a, Dom::InsertBeforeDomNode(root, a, Element("elsewhere")));
  EXPECT_THAT(Children(*root), ElementsAre("a"));
}

TEST_F(DomTree, KeptCountStaysRaisedForAReferenceOfAnotherParent) {
  DomNode* const root = Element("root");
  Add(root, Element("a"));
  DomNode* const other = Element("other");
  DomNode* const stranger = Add(other, Element("stranger"));
  EXPECT_EQ(nullptr, Dom::InsertBeforeDomNode(root, Element("b"), stranger));
  EXPECT_EQ(2, root->childCount);
  EXPECT_THAT(Children(*root), ElementsAre("a"));
  EXPECT_EQ(1, other->childCount);
}

TEST_F(DomTree, RaisedCountDoesNotLeadTheNextInsertAstray) {
  DomNode* const root = Element("root");
  DomNode* const a = Add(root, Element("a"));
  DomNode* const other = Element("other");
  EXPECT_EQ(nullptr, Dom::InsertBeforeDomNode(root, Element("b"), Add(other, Element("x"))));
  EXPECT_EQ(a, Dom::RemoveChildDomNode(a, root));
  EXPECT_EQ(nullptr, root->firstChild);
  Add(root, Element("c"));
  EXPECT_THAT(Children(*root), ElementsAre("c"));
}

TEST_F(DomTree, NodesOfDifferentDocumentsAreNotJoined) {
  DomNode* other = nullptr;
  ASSERT_EQ(1, Dom::CreateDocumentDomDocument(parser_, other));
  DomNode* const root = Element("root");
  const vex_test::LogCapture log;
  EXPECT_EQ(nullptr, Dom::InsertBeforeDomNode(other, root, nullptr));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(DomTree, ChildWithAParentIsMoved) {
  DomNode* const from = Element("from");
  Add(from, Element("a"));
  DomNode* const b = Add(from, Element("b"));
  Add(from, Element("c"));
  DomNode* const to = Element("to");
  EXPECT_EQ(b, Dom::InsertBeforeDomNode(to, b, nullptr));
  EXPECT_EQ(2, from->childCount);
  EXPECT_THAT(Children(*from), ElementsAre("a", "c"));
  EXPECT_THAT(Children(*to), ElementsAre("b"));
}

TEST_F(DomTree, ChildMovesWithinItsParent) {
  DomNode* const root = Element("root");
  DomNode* const a = Add(root, Element("a"));
  Add(root, Element("b"));
  DomNode* const c = Add(root, Element("c"));
  EXPECT_EQ(a, Dom::InsertBeforeDomNode(root, a, nullptr));
  EXPECT_THAT(Children(*root), ElementsAre("b", "c", "a"));
  EXPECT_EQ(a, Dom::InsertBeforeDomNode(root, a, c));
  EXPECT_THAT(Children(*root), ElementsAre("b", "a", "c"));
  EXPECT_EQ(3, root->childCount);
}

TEST_F(DomTree, ChildInFrontOfItselfStays) {
  DomNode* const root = Element("root");
  Add(root, Element("a"));
  DomNode* const b = Add(root, Element("b"));
  DomNode* const c = Add(root, Element("c"));
  EXPECT_EQ(b, Dom::InsertBeforeDomNode(root, b, b));
  EXPECT_EQ(c, Dom::InsertBeforeDomNode(root, c, c));
  EXPECT_THAT(Children(*root), ElementsAre("a", "b", "c"));
  EXPECT_EQ(3, root->childCount);
}

TEST_F(DomTree, NodeIsNotPutBelowItself) {
  DomNode* const root = Element("root");
  DomNode* const child = Add(root, Element("child"));
  EXPECT_EQ(nullptr, Dom::InsertBeforeDomNode(root, root, nullptr));
  EXPECT_EQ(nullptr, Dom::InsertBeforeDomNode(child, root, nullptr));
  EXPECT_THAT(Children(*root), ElementsAre("child"));
  EXPECT_EQ(1, root->childCount);
}

TEST_F(DomTree, RemovingTakesOffAnyPlace) {
  DomNode* const root = Element("root");
  DomNode* const a = Add(root, Element("a"));
  DomNode* const b = Add(root, Element("b"));
  DomNode* const c = Add(root, Element("c"));
  DomNode* const d = Add(root, Element("d"));
  EXPECT_EQ(b, Dom::RemoveChildDomNode(b, root));
  EXPECT_THAT(Children(*root), ElementsAre("a", "c", "d"));
  EXPECT_EQ(a, Dom::RemoveChildDomNode(a, root));
  EXPECT_THAT(Children(*root), ElementsAre("c", "d"));
  EXPECT_EQ(d, Dom::RemoveChildDomNode(d, root));
  EXPECT_THAT(Children(*root), ElementsAre("c"));
  EXPECT_EQ(c, Dom::RemoveChildDomNode(c, root));
  EXPECT_EQ(0, root->childCount);
  EXPECT_EQ(nullptr, root->firstChild);
  EXPECT_EQ(nullptr, root->lastChild);
}

TEST_F(DomTree, KeptRemovedChildKeepsItsOwnLinks) {
  DomNode* const root = Element("root");
  DomNode* const a = Add(root, Element("a"));
  DomNode* const b = Add(root, Element("b"));
  DomNode* const c = Add(root, Element("c"));
  EXPECT_EQ(b, Dom::RemoveChildDomNode(b, root));
  EXPECT_EQ(root, b->parentNode);
  EXPECT_EQ(a, b->previousSibling);
  EXPECT_EQ(c, b->nextSibling);
}

TEST_F(DomTree, RemovedChildIsPutElsewhereWithoutHarmToItsOldParent) {
  DomNode* const root = Element("root");
  DomNode* const a = Add(root, Element("a"));
  Add(root, Element("b"));
  DomNode* const to = Element("to");
  EXPECT_EQ(a, Dom::RemoveChildDomNode(a, root));
  EXPECT_EQ(nullptr, Dom::RemoveChildDomNode(a, root));
  Add(to, a);
  EXPECT_THAT(Children(*root), ElementsAre("b"));
  EXPECT_EQ(1, root->childCount);
  EXPECT_THAT(Children(*to), ElementsAre("a"));
}

TEST_F(DomTree, RemovingFromAnotherParentChangesNothing) {
  DomNode* const root = Element("root");
  DomNode* const a = Add(root, Element("a"));
  DomNode* const other = Element("other");
  Add(other, Element("b"));
  EXPECT_EQ(nullptr, Dom::RemoveChildDomNode(a, other));
  EXPECT_THAT(Children(*root), ElementsAre("a"));
  EXPECT_THAT(Children(*other), ElementsAre("b"));
  EXPECT_EQ(1, root->childCount);
  EXPECT_EQ(1, other->childCount);
}

TEST_F(DomTree, RemovingNullIsInvalid) {
  DomNode* const root = Element("root");
  {
    const vex_test::LogCapture log;
    EXPECT_EQ(nullptr, Dom::RemoveChildDomNode(nullptr, root));
    ExpectOneInvalidInput(log, "Invalid input values");
  }
  const vex_test::LogCapture log;
  EXPECT_EQ(nullptr, Dom::RemoveChildDomNode(root, nullptr));
  ExpectOneInvalidInput(log, "Invalid input values");
}

class DomSearch : public DomTree {
 protected:
  DomSearch() {
    root_ = Add(document_, Element("root"));
    Add(root_, Text("t"));
    DomNode* const a = Add(root_, Element("a"));
    Add(Add(a, Element("b")), Element("a"));
    Add(root_, Element("b"));
  }

  // Names and addresses of what a search finds; gives the list back.
  std::vector<const DomNode*> Find(DomNode* root, const std::string& tag) {
    std::vector<const DomNode*> found;
    DomNode* const head = Dom::GetElementsByTagNameDomDocument(root, tag);
    if (head == nullptr) return found;
    EXPECT_EQ(88, head->nodeType);
    EXPECT_EQ(nullptr, head->parentNode);
    for (DomNode* entry = head->firstChild; entry != nullptr;) {
      EXPECT_EQ(88, entry->nodeType);
      EXPECT_EQ(0, entry->childCount);
      found.push_back(entry->firstChild);
      DomNode* const next = entry->nextSibling;
      Dom::FreeDomNode(entry);
      entry = next;
    }
    EXPECT_EQ(found.size(), static_cast<std::size_t>(head->childCount));
    Dom::FreeDomNode(head);
    return found;
  }

  std::vector<std::string> Names(const std::vector<const DomNode*>& nodes) {
    std::vector<std::string> names;
    for (const DomNode* node : nodes) names.emplace_back(node->nodeName);
    return names;
  }

  DomNode* root_ = nullptr;
};

TEST_F(DomSearch, FindsElementsOfExactlyThisNameInDocumentOrder) {
  DomNode* const a = root_->firstChild->nextSibling;
  EXPECT_THAT(Find(document_, "a"), ElementsAre(a, a->firstChild->firstChild));
  EXPECT_THAT(Names(Find(root_, "b")), ElementsAre("b", "b"));
  EXPECT_THAT(Names(Find(a, "b")), ElementsAre("b"));
  EXPECT_TRUE(Find(root_, "A").empty());
  EXPECT_TRUE(Find(root_, "#text").empty());
  EXPECT_TRUE(Find(root_, "").empty());
}

TEST_F(DomSearch, StarFindsEveryNodeOfEveryKind) {
  EXPECT_THAT(Names(Find(document_, "*")), ElementsAre("root", "#text", "a", "b", "a", "b"));
  EXPECT_THAT(Names(Find(root_, "*anything")), ElementsAre("#text", "a", "b", "a", "b"));
}

TEST_F(DomSearch, ChildlessElementGivesNoListAtAll) {
  EXPECT_EQ(nullptr, Dom::GetElementsByTagNameDomDocument(Element("x"), "x"));
}

TEST_F(DomSearch, NoMatchGivesAnEmptyList) {
  DomNode* const head = Dom::GetElementsByTagNameDomDocument(root_, "none");
  ASSERT_NE(nullptr, head);
  EXPECT_EQ(0, head->childCount);
  EXPECT_EQ(nullptr, head->firstChild);
  Dom::ClearDomNode(head);
}

TEST_F(DomSearch, OtherRootsGiveNull) {
  EXPECT_EQ(nullptr, Dom::GetElementsByTagNameDomDocument(nullptr, "a"));
  EXPECT_EQ(nullptr, Dom::GetElementsByTagNameDomDocument(root_->firstChild, "a"));
  root_->domParser = nullptr;
  EXPECT_EQ(nullptr, Dom::GetElementsByTagNameDomDocument(root_, "a"));
}

TEST_F(DomSearch, RootWhoseFirstChildIsNotItsOwnGivesNull) {
  DomNode* const other = Element("other");
  other->firstChild = root_->firstChild;
  EXPECT_EQ(nullptr, Dom::GetElementsByTagNameDomDocument(other, "a"));
  other->firstChild = nullptr;
}

// The search went down to what the entry refers to, and from there round and round or out of the
// tree.
TEST_F(DomSearch, RegressionAnEntryOfAListInTheTreeLeadsNowhere) {
  DomNode* const a = root_->firstChild->nextSibling;
  for (DomNode* const below : {a, root_}) {
    DomNode* const head = Dom::GetElementsByTagNameDomDocument(root_, "b");
    ASSERT_NE(nullptr, head);
    // One refers to what stands in front of it in the same element, the other to what is elsewhere.
    std::vector<DomNode*> entries;
    while (head->firstChild != nullptr) {
      entries.push_back(Dom::RemoveChildDomNode(head->firstChild, head));
      Add(below, entries.back());
    }
    EXPECT_EQ(2U, entries.size());
    EXPECT_THAT(Names(Find(document_, "b")), ElementsAre("b", "b"));
    EXPECT_THAT(Names(Find(a, "b")), ElementsAre("b"));
    EXPECT_THAT(Names(Find(document_, "a")), ElementsAre("a", "a"));
    for (DomNode* const entry : entries) {
      Dom::RemoveChildDomNode(entry, below);
      Dom::ClearDomNode(entry);
    }
    Dom::ClearDomNode(head);
  }
}

TEST_F(DomSearch, ListOutlivesTheDocument) {
  DomNode* const head = Dom::GetElementsByTagNameDomDocument(root_, "b");
  ASSERT_NE(nullptr, head);
  Dom::FreeDomDocument(document_);
  parser_.nodes.reset();
  DomNode* const first = head->firstChild;
  DomNode* const second = first->nextSibling;
  EXPECT_EQ(nullptr, second->nextSibling);
  EXPECT_EQ(0, Dom::ClearDomNode(first));
  EXPECT_EQ(0, Dom::ClearDomNode(second));
  EXPECT_EQ(0, Dom::ClearDomNode(head));
}

// A freed node is the next one that is handed out, so whatever was freed comes again.
std::set<const DomNode*> NextNodes(DomParser& parser, int count) {
  std::set<const DomNode*> nodes;
  for (int i = 0; i < count; ++i) nodes.insert(Dom::AllocateANode(&parser));
  return nodes;
}

TEST_F(DomTree, FreeingAnElementFreesItsAttributes) {
  DomNode* const element = Element("a");
  Dom::SetAttributeDomElement(element, "x", "1");
  Dom::SetAttributeDomElement(element, "y", "2");
  const std::set<const DomNode*> freed{element, element->attributes,
                                       element->attributes->attributes};
  Dom::FreeDomNode(element);
  EXPECT_EQ(freed, NextNodes(parser_, 3));
}

TEST_F(DomTree, NodeWithoutDocumentIsNotFreed) {
  DomNode* const node = Dom::AllocateANode(&parser_);
  {
    const vex_test::LogCapture log;
    Dom::FreeDomNode(node);
    ExpectOneInvalidInput(log);
  }
  const vex_test::LogCapture log;
  Dom::FreeDomNodeRecursively(node);
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Invalid inputs"));
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "Owner document is NULL"));
  EXPECT_EQ(&parser_, node->domParser);
}

TEST_F(DomTree, NodeWithoutParserIsFreedAlone) {
  DomNode* const root = Element("root");
  DomNode* const child = Add(root, Element("child"));
  root->domParser = nullptr;
  const vex_test::LogCapture log;
  Dom::FreeDomNodeRecursively(root);
  EXPECT_EQ(1, log.Count(4, "VEX_CORE_UTILS", "DomParser is NULL"));
  EXPECT_EQ(1U, log.Lines().size());
  EXPECT_STREQ("child", child->nodeName);
  EXPECT_EQ(std::set<const DomNode*>{root}, NextNodes(parser_, 1));
}

TEST_F(DomTree, FreeingASubtreeDetachesItAndFreesAllOfIt) {
  DomNode* const root = Add(document_, Element("root"));
  Add(root, Element("a"));
  DomNode* const b = Add(root, Element("b"));
  Add(root, Element("c"));
  std::set<const DomNode*> freed{b};
  DomNode* const inner = Add(b, Element("inner"));
  freed.insert({inner, Add(inner, Text("t")), Add(b, Element("last"))});
  Dom::SetAttributeDomElement(inner, "x", "1");
  freed.insert(inner->attributes);
  Dom::FreeDomNodeRecursively(b);
  EXPECT_THAT(Children(*root), ElementsAre("a", "c"));
  EXPECT_EQ(2, root->childCount);
  EXPECT_EQ(freed, NextNodes(parser_, 5));
}

TEST_F(DomTree, FreeingTheOnlyChildLeavesAChildlessParent) {
  DomNode* const root = Add(document_, Element("root"));
  Dom::FreeDomNodeRecursively(root);
  EXPECT_EQ(0, document_->childCount);
  EXPECT_EQ(nullptr, document_->firstChild);
  EXPECT_EQ(nullptr, document_->lastChild);
}

TEST_F(DomTree, FreeingARemovedChildLeavesItsOldParentAlone) {
  DomNode* const root = Add(document_, Element("root"));
  Add(root, Element("a"));
  DomNode* const b = Add(root, Element("b"));
  Add(root, Element("c"));
  Dom::RemoveChildDomNode(b, root);
  Dom::FreeDomNodeRecursively(b);
  EXPECT_THAT(Children(*root), ElementsAre("a", "c"));
  EXPECT_EQ(2, root->childCount);
}

TEST_F(DomTree, FreeingADocumentFreesAllOfIt) {
  DomNode* const root = Add(document_, Element("root"));
  const std::set<const DomNode*> freed{document_, root, Add(root, Text("t")),
                                       Add(root, Element("a"))};
  Dom::FreeDomDocument(document_);
  EXPECT_EQ(freed, NextNodes(parser_, 4));
}

TEST_F(DomTree, FreeingNoDocumentIsLogged) {
  DomNode* const root = Element("root");
  {
    const vex_test::LogCapture log;
    Dom::FreeDomDocument(root);
    ExpectOneInvalidInput(log, "Not DOCUMENT Type");
  }
  EXPECT_STREQ("root", root->nodeName);
  {
    const vex_test::LogCapture log;
    Dom::FreeDomDocument(nullptr);
    ExpectOneInvalidInput(log, "Invalid input");
  }
  const vex_test::LogCapture log;
  Dom::FreeDomNodeRecursively(nullptr);
  ExpectOneInvalidInput(log, "Invalid input");
}

TEST_F(DomTree, KeptNodeOfAListInTheTreeEndsTheFreeing) {
  DomNode* const root = Add(document_, Element("root"));
  DomNode* const first = Add(root, Element("first"));
  DomNode* const head = Dom::GetElementsByTagNameDomDocument(document_, "none");
  ASSERT_NE(nullptr, head);
  Add(root, head);
  DomNode* const last = Add(root, Element("last"));
  DomNode* const inner = Add(last, Element("inner"));
  const std::set<const DomNode*> freed{document_, first};
  Dom::FreeDomDocument(document_);
  // What was not reached is whole and is freed by hand.
  EXPECT_EQ(nullptr, root->parentNode);
  EXPECT_EQ(head, root->firstChild);
  EXPECT_EQ(last, root->lastChild);
  EXPECT_EQ(freed, NextNodes(parser_, 2));
  Dom::RemoveChildDomNode(head, root);
  EXPECT_EQ(0, Dom::ClearDomNode(head));
  EXPECT_THAT(Children(*root), ElementsAre("last"));
  EXPECT_EQ(inner, last->firstChild);
  Dom::FreeDomNode(inner);
  Dom::FreeDomNode(last);
  Dom::FreeDomNode(root);
}

TEST_F(DomTree, FreeingAnEntryOfAListSparesWhatItRefersTo) {
  DomNode* const root = Add(document_, Element("root"));
  Add(root, Element("a"));
  DomNode* const head = Dom::GetElementsByTagNameDomDocument(document_, "a");
  ASSERT_NE(nullptr, head);
  Dom::FreeDomNodeRecursively(head->firstChild);
  EXPECT_EQ(0, head->childCount);
  Dom::FreeDomNode(head);
  EXPECT_THAT(Children(*root), ElementsAre("a"));
}

TEST_F(DomTree, DepthCostsNoStack) {
  DomNode* node = document_;
  for (int i = 0; i < 1000000; ++i) node = Add(node, Element("a"));
  DomNode* const head = Dom::GetElementsByTagNameDomDocument(document_, "b");
  ASSERT_NE(nullptr, head);
  Dom::ClearDomNode(head);
  Dom::FreeDomDocument(document_);
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
