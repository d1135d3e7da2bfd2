#ifndef VEXUPNPCP_SRC_HEADER_END_H_
#define VEXUPNPCP_SRC_HEADER_END_H_

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace vex_upnp {
namespace network_layer {

// Watches the bytes of a message for the blank line that ends its header. A message that is still
// not past its header behind that line never will be: the parser goes on waiting, so whoever feeds
// it has to give the message up.
class HeaderEnd {
 public:
  // Takes the next bytes. True once the blank line has come, in one piece or in several.
  bool Saw(const char* data, std::size_t size) {
    if (seen_) return true;
    constexpr std::size_t kOverlap = sizeof(kBlankLine) - 2;
    const std::string seam = tail_ + std::string(data, std::min(size, kOverlap));
    seen_ = seam.find(kBlankLine) != std::string::npos ||
            memmem(data, size, kBlankLine, sizeof(kBlankLine) - 1) != nullptr;
    tail_.append(data + size - std::min(size, kOverlap), std::min(size, kOverlap));
    if (tail_.size() > kOverlap) tail_.erase(0, tail_.size() - kOverlap);
    return seen_;
  }

 private:
  static constexpr char kBlankLine[] = "\r\n\r\n";
  bool seen_ = false;
  std::string tail_;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_HEADER_END_H_
