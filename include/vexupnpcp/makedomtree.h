#ifndef VEXUPNPCP_MAKEDOMTREE_H_
#define VEXUPNPCP_MAKEDOMTREE_H_

#include <cstdint>
#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

struct DomParser;
class DomNodePool;

/// Values of `DomNode::nodeType`.
constexpr std::int32_t kDomElement = 1;
constexpr std::int32_t kDomAttribute = 2;
constexpr std::int32_t kDomText = 3;
constexpr std::int32_t kDomDocument = 9;
/// Head and entries of a list that GetElementsByTagNameDomDocument makes.
constexpr std::int32_t kDomList = 88;

/// One node of a document, whatever its kind.
///
/// The texts lie in the buffer that was parsed: freeing a node frees no text, and no node may be
/// used once that buffer is gone. `firstChild` and `lastChild` are both null exactly when
/// `childCount` is 0; all nodes of a tree have one `ownerDocument`.
struct DomNode {
  /// Name of an element or attribute; "#document" and "#text" for those kinds.
  const char* nodeName;
  /// Text of a text node, value of an attribute, null otherwise.
  const char* nodeValue;
  std::int32_t nodeType;
  std::int32_t childCount;
  /// Null for a document and for an attribute.
  DomNode* parentNode;
  /// In an entry of a list: the element that was found.
  DomNode* firstChild;
  DomNode* lastChild;
  DomNode* previousSibling;
  DomNode* nextSibling;
  std::int32_t attributeCount;
  /// In an element its first attribute; in an attribute the next one of the same element, in order
  /// of first appearance.
  DomNode* attributes;
  /// A document points to itself.
  DomNode* ownerDocument;
  DomParser* domParser;
  /// Where the node's memory came from; not for hosts.
  DomNodePool* pool;
};

/// The document tree under the XML parser. Builds, links, searches and frees nodes; nothing here
/// throws. One thread at a time works on the nodes of one parser. Failures are null or 0, with one
/// log line.
class VEX_EXPORT MakeDomTree {
 public:
  /// Makes a zeroed node.
  ///
  /// @param parser  Becomes the node's `domParser` and owns its memory; may be null, then the node
  ///                stands alone.
  /// @return the node, which goes back by ClearDomNode, or at the latest with the last copy of its
  ///         parser; null when memory is short.
  static DomNode* AllocateANode(DomParser* parser);

  /// Releases one node and nothing that it refers to.
  /// @return 0; 3001 (result::kBadInput) for null.
  static int ClearDomNode(DomNode* node);

  /// Makes a document and stores it in the parser, unless that has one already.
  ///
  /// @param document  Receives the document, null on failure.
  /// @return 1, or 0 when memory is short.
  static int CreateDocumentDomDocument(DomParser& parser, DomNode*& document);

  /// Makes an element of a document; it has no parent yet.
  ///
  /// @param name  Not copied; must outlive the node.
  /// @return the element; null for a null argument or when memory is short.
  static DomNode* CreateElementDomDocument(DomNode* document, char* name);

  /// Makes a text node of a document, under the same rules.
  static DomNode* CreateTextNodeDomDocument(DomNode* document, char* text);

  /// Makes an attribute of a document, under the same rules. It belongs to no element yet.
  static DomNode* CreateAttributeDomDocument(DomNode* document, const char* name);

  /// Sets an attribute: replaces the value of an equal name, which keeps its place, or adds one at
  /// the end. The texts are not copied.
  /// @return 1; 0 for a null element or name or when memory is short.
  static int SetAttributeDomElement(DomNode* element, const char* name, const char* value);

  /// Puts a child under a parent, in front of `reference` or, when that is null, at the end. A
  /// child that already has a parent is moved.
  ///
  /// @return the child; null when an argument is null, when the two belong to different documents,
  ///         or when `reference` is no child of `parent`. In that last case the parent's
  ///         `childCount` has already been raised and stays so.
  static DomNode* InsertBeforeDomNode(DomNode* parent, DomNode* child, DomNode* reference);

  /// Takes a child off its parent. The child's own links are left as they were.
  /// @return the child; null when an argument is null or `parent` is not its parent.
  static DomNode* RemoveChildDomNode(DomNode* child, DomNode* parent);

  /// @return the first child, null when there is none or for null.
  static DomNode* GetFirstChildDomNode(DomNode* node);
  /// The same, for a document.
  static DomNode* GetFirstChildDomDocument(DomNode* document);

  /// Lists the elements below a node, in document order.
  ///
  /// @param root  An element or document.
  /// @param tag   The exact name; a text that begins with `*` finds every node of every kind.
  /// @return head of a list, apart from the tree: one entry of kind 88 under it for each match,
  ///         whose `firstChild` is the match. Null when `root` has no child, is of another kind or
  ///         has no parser, and when memory is short. The caller gives head and entries back, each
  ///         by ClearDomNode or FreeDomNode.
  static DomNode* GetElementsByTagNameDomDocument(DomNode* root, const std::string& tag);

  /// Frees one node, and the attributes of an element. Children are left alone. A node without
  /// `ownerDocument` is not freed.
  static void FreeDomNode(DomNode* node);

  /// Frees a node and all below it, without recursion, and detaches it from its parent first. A
  /// node below that is neither element nor text ends the walk: the node given is freed, what has
  /// not been visited by then stays.
  static void FreeDomNodeRecursively(DomNode* node);

  /// The same for a document; a node of another kind is not freed.
  static void FreeDomDocument(DomNode* document);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_MAKEDOMTREE_H_
