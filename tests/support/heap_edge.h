#ifndef VEXUPNPCP_TESTS_SUPPORT_HEAP_EDGE_H_
#define VEXUPNPCP_TESTS_SUPPORT_HEAP_EDGE_H_

#include <cstring>
#include <memory>
#include <string_view>

namespace vex_test {

// A copy of some bytes in a heap block of exactly their number, with no NUL behind them: a byte
// read too far is seen by the address sanitizer.
class HeapEdge {
 public:
  explicit HeapEdge(std::string_view bytes)
      : block_(new char[bytes.size()]), size_(static_cast<unsigned int>(bytes.size())) {
    if (!bytes.empty()) std::memcpy(block_.get(), bytes.data(), bytes.size());
  }

  const char* data() const { return block_.get(); }
  unsigned int size() const { return size_; }

 private:
  std::unique_ptr<char[]> block_;
  unsigned int size_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_HEAP_EDGE_H_
