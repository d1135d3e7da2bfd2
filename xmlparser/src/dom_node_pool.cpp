#include "xmlparser/src/dom_node_pool.h"

#include <algorithm>
#include <new>

namespace vex_upnp {
namespace utils {

namespace {

// Descriptions have a node for about every 25 bytes, SOAP bodies fewer.
constexpr std::size_t kTextPerNode = 24;
constexpr std::size_t kSmallestBlock = 8;
// About 50 KiB on 64 bits: small enough to be served from the heap, where memory is warm.
constexpr std::size_t kLargestBlock = 512;

}  // namespace

bool AttributeIndex::Describes(const DomNode& element) const {
  return element_ == &element &&
         by_name_.size() == static_cast<std::size_t>(element.attributeCount);
}

bool AttributeIndex::Build(DomNode& element) {
  by_name_.clear();
  element_ = nullptr;
  try {
    for (DomNode* node = element.attributes; node != nullptr; node = node->attributes) {
      by_name_.emplace(node->nodeName == nullptr ? "" : node->nodeName, node);
      last_ = node;
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  element_ = &element;
  return true;
}

DomNode* AttributeIndex::Find(const char* name) const {
  const auto found = by_name_.find(name);
  return found == by_name_.end() ? nullptr : found->second;
}

bool AttributeIndex::Append(DomNode& attribute) {
  try {
    by_name_.emplace(attribute.nodeName, &attribute);
  } catch (const std::bad_alloc&) {
    return false;
  }
  last_->attributes = &attribute;
  last_ = &attribute;
  return true;
}

void AttributeIndex::Forget(const DomNode& element) {
  if (element_ == &element) element_ = nullptr;
}

DomNodePool::~DomNodePool() {
  while (blocks_ != nullptr) {
    Block* const next = blocks_->next;
    ::operator delete(blocks_);
    blocks_ = next;
  }
}

void DomNodePool::ExpectText(std::size_t bytes) {
  next_block_nodes_ = std::clamp(bytes / kTextPerNode, kSmallestBlock, kLargestBlock);
}

bool DomNodePool::AddBlock() {
  constexpr std::size_t kHeader = std::max(sizeof(Block), alignof(DomNode));
  void* const memory = ::operator new(kHeader + next_block_nodes_ * sizeof(DomNode), std::nothrow);
  if (memory == nullptr) return false;
  Block* const block = static_cast<Block*>(memory);
  block->next = blocks_;
  blocks_ = block;
  next_ = reinterpret_cast<DomNode*>(static_cast<char*>(memory) + kHeader);
  block_end_ = next_ + next_block_nodes_;
  next_block_nodes_ = std::min(next_block_nodes_ * 2, kLargestBlock);
  return true;
}

DomNodePool* PoolOf(DomParser& parser) {
  if (!parser.nodes) {
    try {
      parser.nodes.reset(new DomNodePool);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  return parser.nodes.get();
}

}  // namespace utils
}  // namespace vex_upnp
