#ifndef VEXUPNPCP_XMLPARSER_SRC_DOM_NODE_POOL_H_
#define VEXUPNPCP_XMLPARSER_SRC_DOM_NODE_POOL_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include <vexupnpcp/embeddedxmlparser.h>

namespace vex_upnp {
namespace utils {

constexpr char kDocumentName[] = "#document";
constexpr char kTextName[] = "#text";

// Attributes of the element that is being read, by name, so that an element with very many of them
// takes no square of time. A tree rather than a hash table: no choice of names makes it slow.
class AttributeIndex {
 public:
  // Whether the index knows all attributes of this element.
  bool Describes(const DomNode& element) const;
  // Indexes the element's attributes. False when memory is short.
  bool Build(DomNode& element);
  // Null when the element has no attribute of this name.
  DomNode* Find(const char* name) const;
  // Puts a new attribute behind the last one. False when memory is short, with nothing changed.
  bool Append(DomNode& attribute);
  // Nothing is known any more, as when the element is freed.
  void Forget(const DomNode& element);

 private:
  DomNode* element_ = nullptr;
  DomNode* last_ = nullptr;
  std::map<std::string_view, DomNode*> by_name_;
};

// Memory of the nodes of one parser. Nodes come out of few large blocks, so that a document costs
// few allocations and is let go at once, without a walk over it.
class DomNodePool {
 public:
  DomNodePool() = default;
  DomNodePool(const DomNodePool&) = delete;
  DomNodePool& operator=(const DomNodePool&) = delete;
  ~DomNodePool();

  // The first block gets room for about as many nodes as a text of this length makes.
  void ExpectText(std::size_t bytes);

  // Memory of one node, not yet written to; null when memory is short.
  DomNode* Allocate() {
    if (free_ != nullptr) {
      DomNode* const node = free_;
      free_ = node->nextSibling;
      return node;
    }
    if (next_ == block_end_ && !AddBlock()) return nullptr;
    return next_++;
  }

  void Release(DomNode& node) {
    node.nextSibling = free_;
    free_ = &node;
  }

  AttributeIndex& attribute_index() { return attribute_index_; }

 private:
  struct Block {
    Block* next;
  };

  bool AddBlock();

  DomNode* free_ = nullptr;
  DomNode* next_ = nullptr;
  DomNode* block_end_ = nullptr;
  Block* blocks_ = nullptr;
  std::size_t next_block_nodes_ = 8;
  AttributeIndex attribute_index_;
};

// The parser's pool, made when there is none yet; null when memory is short.
DomNodePool* PoolOf(DomParser& parser);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSER_SRC_DOM_NODE_POOL_H_
