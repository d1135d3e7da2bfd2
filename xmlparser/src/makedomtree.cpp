#include <vexupnpcp/makedomtree.h>

#include <cstring>
#include <new>

#include <vexupnpcp/result_codes.h>

#include "base/limits.h"
#include "base/log.h"
#include "xmlparser/src/dom_node_pool.h"

namespace vex_upnp {
namespace utils {

namespace {

constexpr const char* kTag = log::kTagUtils;

bool SameName(const char* a, const char* b) {
  return a == b || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

// A node that outlives its parser's document, as the entries of a list may.
DomNode* AllocateLoneNode() { return new (std::nothrow) DomNode(); }

DomNode* CreateNode(DomNode* document, const char* name, const char* value, std::int32_t type) {
  DomNode* const node = MakeDomTree::AllocateANode(document->domParser);
  if (node == nullptr) return nullptr;
  node->nodeName = name;
  node->nodeValue = value;
  node->nodeType = type;
  node->ownerDocument = document;
  return node;
}

// A child that was removed keeps its own links, so these alone don't tell that it hangs there.
bool HangsUnderParent(const DomNode& child) {
  if (child.parentNode->firstChild == &child) return true;
  return child.previousSibling != nullptr && child.previousSibling->nextSibling == &child;
}

// Takes a child out of its parent's list and leaves its own links alone.
void Unlink(DomNode& child) {
  DomNode& parent = *child.parentNode;
  if (parent.childCount == 1) {
    parent.firstChild = nullptr;
    parent.lastChild = nullptr;
    parent.childCount = 0;
    return;
  }
  if (parent.firstChild == &child) parent.firstChild = child.nextSibling;
  if (parent.lastChild == &child) parent.lastChild = child.previousSibling;
  if (child.previousSibling != nullptr) child.previousSibling->nextSibling = child.nextSibling;
  if (child.nextSibling != nullptr) child.nextSibling->previousSibling = child.previousSibling;
  --parent.childCount;
}

bool IsSelfOrAncestor(const DomNode* candidate, const DomNode* node) {
  if (candidate == node) return true;
  // A node without children is nobody's ancestor; the parser inserts no others.
  if (candidate->firstChild == nullptr) return false;
  while (node != nullptr && node != candidate) node = node->parentNode;
  return node == candidate;
}

void Append(DomNode& parent, DomNode& child) {
  child.previousSibling = parent.lastChild;
  child.nextSibling = parent.lastChild->nextSibling;
  parent.lastChild->nextSibling = &child;
  parent.lastChild = &child;
}

void PutInFront(DomNode& parent, DomNode& child, DomNode& reference) {
  child.previousSibling = reference.previousSibling;
  child.nextSibling = &reference;
  if (reference.previousSibling != nullptr) reference.previousSibling->nextSibling = &child;
  reference.previousSibling = &child;
  if (parent.firstChild == &reference) parent.firstChild = &child;
}

// The next node of a pre-order walk below `root`, null at its end.
DomNode* NextInDocumentOrder(DomNode* node, const DomNode* root) {
  DomNode* const child = node->firstChild;
  // An entry of a list refers to a node that is not its child, and may have been inserted anywhere.
  if (child != nullptr && child->parentNode == node) return child;
  while (node != root && node->nextSibling == nullptr) node = node->parentNode;
  return node == root ? nullptr : node->nextSibling;
}

DomNode* CreateListNode(const DomNode& root, DomNode* found) {
  DomNode* const node = AllocateLoneNode();
  if (node == nullptr) return nullptr;
  node->nodeType = kDomList;
  node->firstChild = found;
  node->ownerDocument = root.ownerDocument;
  node->domParser = root.domParser;
  return node;
}

void FreeList(DomNode* head) {
  for (DomNode* entry = head->firstChild; entry != nullptr;) {
    DomNode* const next = entry->nextSibling;
    MakeDomTree::ClearDomNode(entry);
    entry = next;
  }
  MakeDomTree::ClearDomNode(head);
}

// Frees what lies below a node as long as it consists of elements and texts.
void FreeBelow(DomNode& root) {
  DomNode* current = root.firstChild;
  // An entry of a list refers to a node that is not its child.
  if (current == nullptr || current->parentNode != &root) return;
  while (current != nullptr) {
    // KEPT: any other kind ends the walk, and what is left of the subtree stays.
    if (current->nodeType != kDomElement && current->nodeType != kDomText) break;
    if (current->firstChild != nullptr) {
      current = current->firstChild;
      continue;
    }
    DomNode* const parent = current->parentNode;
    DomNode* const next = current->nextSibling;
    Unlink(*current);
    MakeDomTree::FreeDomNode(current);
    current = next != nullptr ? next : (parent == &root ? nullptr : parent);
  }
  for (DomNode* left = root.firstChild; left != nullptr; left = left->nextSibling) {
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): what was freed had been unlinked before.
    left->parentNode = nullptr;
  }
}

}  // namespace

DomNode* MakeDomTree::AllocateANode(DomParser* parser) {
  if (parser == nullptr) return AllocateLoneNode();
  DomNodePool* const pool = PoolOf(*parser);
  DomNode* const memory = pool == nullptr ? nullptr : pool->Allocate();
  if (memory == nullptr) return nullptr;
  DomNode* const node = new (memory) DomNode();
  node->domParser = parser;
  node->pool = pool;
  // cppcheck-suppress uninitStructMember; the empty brackets have set every member.
  return node;
}

int MakeDomTree::ClearDomNode(DomNode* node) {
  if (node == nullptr) return result::kBadInput;
  DomNodePool* const pool = node->pool;
  if (pool == nullptr) {
    delete node;
    return result::kOk;
  }
  if (node->attributeCount > 0) pool->attribute_index().Forget(*node);
  *node = DomNode();
  pool->Release(*node);
  return result::kOk;
}

int MakeDomTree::CreateDocumentDomDocument(DomParser& parser, DomNode*& document) {
  document = AllocateANode(&parser);
  if (document == nullptr) {
    VEX_LOG(kLogMajor, kTag, "AllocateANode failed");
    return result::kNo;
  }
  document->nodeName = kDocumentName;
  document->nodeType = kDomDocument;
  document->ownerDocument = document;
  if (parser.document == nullptr) parser.document = document;
  return result::kYes;
}

DomNode* MakeDomTree::CreateElementDomDocument(DomNode* document, char* name) {
  if (document == nullptr || name == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return nullptr;
  }
  return CreateNode(document, name, nullptr, kDomElement);
}

DomNode* MakeDomTree::CreateTextNodeDomDocument(DomNode* document, char* text) {
  if (document == nullptr || text == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return nullptr;
  }
  return CreateNode(document, kTextName, text, kDomText);
}

DomNode* MakeDomTree::CreateAttributeDomDocument(DomNode* document, const char* name) {
  if (document == nullptr || name == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return nullptr;
  }
  return CreateNode(document, name, nullptr, kDomAttribute);
}

namespace {

DomNode* CreateAttribute(DomNode& element, const char* name, const char* value) {
  DomNode* const attribute = MakeDomTree::CreateAttributeDomDocument(element.ownerDocument, name);
  if (attribute == nullptr) {
    VEX_LOG(kLogMajor, kTag, "CreateAttributeDomDocument failed");
    return nullptr;
  }
  attribute->nodeValue = value;
  return attribute;
}

// For an element with many attributes, where a walk for each would cost a square of time.
int SetIndexedAttribute(DomNode& element, AttributeIndex& index, const char* name,
                        const char* value) {
  if (!index.Describes(element) && !index.Build(element)) {
    VEX_LOG(kLogMajor, kTag, "CreateAttributeDomDocument failed");
    return result::kNo;
  }
  DomNode* const existing = index.Find(name);
  if (existing != nullptr) {
    existing->nodeValue = value;
    return result::kYes;
  }
  DomNode* const attribute = CreateAttribute(element, name, value);
  if (attribute == nullptr) return result::kNo;
  if (!index.Append(*attribute)) {
    MakeDomTree::ClearDomNode(attribute);
    VEX_LOG(kLogMajor, kTag, "CreateAttributeDomDocument failed");
    return result::kNo;
  }
  ++element.attributeCount;
  return result::kYes;
}

}  // namespace

int MakeDomTree::SetAttributeDomElement(DomNode* element, const char* name, const char* value) {
  if (element == nullptr || name == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return result::kNo;
  }
  if (element->pool != nullptr && element->attributeCount >= 0 &&
      static_cast<std::size_t>(element->attributeCount) >= limits::kAttributeIndexFrom) {
    return SetIndexedAttribute(*element, element->pool->attribute_index(), name, value);
  }
  DomNode** link = &element->attributes;
  while (*link != nullptr) {
    if (SameName((*link)->nodeName, name)) {
      (*link)->nodeValue = value;
      return result::kYes;
    }
    link = &(*link)->attributes;
  }
  *link = CreateAttribute(*element, name, value);
  if (*link == nullptr) return result::kNo;
  ++element->attributeCount;
  return result::kYes;
}

DomNode* MakeDomTree::InsertBeforeDomNode(DomNode* parent, DomNode* child, DomNode* reference) {
  if (parent == nullptr || child == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return nullptr;
  }
  if (parent->ownerDocument != child->ownerDocument) return nullptr;
  // A node below itself would make every walk endless.
  if (IsSelfOrAncestor(child, parent)) return nullptr;

  if (child->parentNode != nullptr) {
    // In front of itself is where it stands already.
    if (reference == child && child->parentNode == parent) reference = child->nextSibling;
    if (HangsUnderParent(*child) && RemoveChildDomNode(child, child->parentNode) == nullptr) {
      return nullptr;
    }
  }
  if (parent->firstChild == nullptr) {
    parent->firstChild = child;
    parent->lastChild = child;
    parent->childCount = 1;
    child->previousSibling = nullptr;
    child->nextSibling = nullptr;
    child->parentNode = parent;
    return child;
  }
  // KEPT: the count is raised before the reference is looked at and stays raised when that is no
  // child of the parent.
  ++parent->childCount;
  if (reference == nullptr) {
    Append(*parent, *child);
  } else if (reference->parentNode == parent) {
    PutInFront(*parent, *child, *reference);
  } else {
    return nullptr;
  }
  child->parentNode = parent;
  return child;
}

DomNode* MakeDomTree::RemoveChildDomNode(DomNode* child, DomNode* parent) {
  if (child == nullptr || parent == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid input values");
    return nullptr;
  }
  if (child->parentNode != parent || !HangsUnderParent(*child)) return nullptr;
  Unlink(*child);
  return child;
}

DomNode* MakeDomTree::GetFirstChildDomNode(DomNode* node) {
  if (node == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return nullptr;
  }
  return node->firstChild;
}

DomNode* MakeDomTree::GetFirstChildDomDocument(DomNode* document) {
  return GetFirstChildDomNode(document);
}

DomNode* MakeDomTree::GetElementsByTagNameDomDocument(DomNode* root, const std::string& tag) {
  if (root == nullptr || root->domParser == nullptr || root->firstChild == nullptr ||
      (root->nodeType != kDomElement && root->nodeType != kDomDocument)) {
    return nullptr;
  }
  DomNode* const head = CreateListNode(*root, nullptr);
  if (head == nullptr) return nullptr;
  if (root->firstChild->parentNode != root) {
    ClearDomNode(head);
    return nullptr;
  }
  const bool every_node = !tag.empty() && tag[0] == '*';
  for (DomNode* node = root->firstChild; node != nullptr; node = NextInDocumentOrder(node, root)) {
    if (!every_node && (node->nodeType != kDomElement || !SameName(node->nodeName, tag.c_str()))) {
      continue;
    }
    DomNode* const entry = CreateListNode(*root, node);
    if (entry != nullptr && InsertBeforeDomNode(head, entry, nullptr) != nullptr) continue;
    if (every_node) {
      VEX_LOG(kLogMajor, kTag, "Failed InsertBeforeDomNode!");
    } else {
      VEX_LOG(kLogMajor, kTag, "GetElementsByTagNameDomElement : Failed InsertBeforeDomNode!");
    }
    ClearDomNode(entry);
    FreeList(head);
    return nullptr;
  }
  return head;
}

void MakeDomTree::FreeDomNode(DomNode* node) {
  if (node == nullptr || node->ownerDocument == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid inputs");
    return;
  }
  if (node->nodeType == kDomElement) {
    for (DomNode* attribute = node->attributes; attribute != nullptr;) {
      DomNode* const next = attribute->attributes;
      ClearDomNode(attribute);
      attribute = next;
    }
  }
  ClearDomNode(node);
}

void MakeDomTree::FreeDomNodeRecursively(DomNode* node) {
  if (node == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return;
  }
  if (node->nodeType != kDomDocument && node->ownerDocument == nullptr) {
    FreeDomNode(node);
    VEX_LOG(kLogStep, kTag, "Owner document is NULL");
    return;
  }
  if (node->domParser == nullptr) {
    FreeDomNode(node);
    VEX_LOG(kLogStep, kTag, "DomParser is NULL");
    return;
  }
  if (node->parentNode != nullptr && HangsUnderParent(*node)) Unlink(*node);
  FreeBelow(*node);
  FreeDomNode(node);
}

void MakeDomTree::FreeDomDocument(DomNode* document) {
  if (document == nullptr) {
    VEX_LOG(kLogMajor, kTag, "Invalid input");
    return;
  }
  if (document->nodeType != kDomDocument) {
    VEX_LOG(kLogMajor, kTag, "Not DOCUMENT Type");
    return;
  }
  FreeDomNodeRecursively(document);
}

}  // namespace utils
}  // namespace vex_upnp
