#include "xmlparser/src/number_references.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <string_view>

#include "base/limits.h"

namespace vex_upnp {
namespace utils {

namespace {

constexpr std::string_view kOpening("&#");
constexpr std::size_t kOpeningLength = 2;

// The value between "&#" and ";", cut to 32 bits on every target.
std::int32_t ReferenceValue(const std::string& reference) {
  const bool hexadecimal = reference[kOpeningLength] == 'x';
  const char* const digits = reference.c_str() + kOpeningLength + (hexadecimal ? 1 : 0);
  const long long value = std::strtoll(digits, nullptr, hexadecimal ? 16 : 10);
  return static_cast<std::int32_t>(std::clamp<long long>(
      value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

char LowByte(std::int32_t value) {
  return static_cast<char>(static_cast<unsigned char>(static_cast<std::uint32_t>(value) & 0xFFU));
}

// Whether a "&#" comes about where two texts meet.
bool MeetsAsOpening(const std::string& front, std::string_view back) {
  return !front.empty() && !back.empty() && front.back() == '&' && back.front() == '#';
}

class OnePass {
 public:
  OnePass(const std::string& text, std::string& out) : text_(text), out_(out) {}

  ReferenceResult Run() {
    std::size_t position = 0;
    for (;;) {
      const std::size_t open = text_.find(kOpening, position);
      const std::size_t close =
          open == std::string::npos ? open : text_.find(';', open + kOpeningLength);
      if (close == std::string::npos) break;
      if (!Append(View(position, open))) return failure_;
      position = close;
      const std::string_view reference = View(open, close + 1);
      if (reference.find(kOpening, kOpeningLength) != std::string_view::npos) {
        return ReferenceResult::kEntangled;
      }
      bool replaced = false;
      if (!AppendReference(reference, replaced)) return failure_;
      if (replaced) ++position;
    }
    return Append(View(position, text_.size())) ? ReferenceResult::kDone : failure_;
  }

 private:
  std::string_view View(std::size_t begin, std::size_t end) const {
    return std::string_view(text_).substr(begin, end - begin);
  }

  bool Append(std::string_view piece) {
    if (MeetsAsOpening(out_, piece)) return Fail(ReferenceResult::kEntangled);
    if (any_replaced_ && piece.size() > limits::kUnescapedText - out_.size()) {
      return Fail(ReferenceResult::kTooMuch);
    }
    out_.append(piece);
    return true;
  }

  // A reference of value 0 stays, all but its ";", from which the search goes on.
  bool AppendReference(std::string_view reference, bool& replaced) {
    auto known = replacements_.find(reference);
    if (known == replacements_.end()) {
      const std::int32_t value = ReferenceValue(std::string(reference));
      if (value == 0) return Append(reference.substr(0, reference.size() - 1));
      if (!Remember(LowByte(value))) return false;
      known = replacements_.emplace(reference, replacement_.size()).first;
    }
    replaced = true;
    return Append(std::string_view(replacement_).substr(0, known->second));
  }

  // KEPT: what a reference is replaced by carries the bytes of all different ones before it.
  bool Remember(char byte) {
    if (MeetsAsOpening(replacement_, std::string_view(&byte, 1))) {
      return Fail(ReferenceResult::kEntangled);
    }
    replacement_ += byte;
    any_replaced_ = true;
    return out_.size() <= limits::kUnescapedText || Fail(ReferenceResult::kTooMuch);
  }

  bool Fail(ReferenceResult failure) {
    failure_ = failure;
    return false;
  }

  const std::string& text_;
  std::string& out_;
  std::string replacement_;
  // How much of the replacement each reference gets. A tree, since its keys are chosen outside.
  std::map<std::string_view, std::size_t> replacements_;
  bool any_replaced_ = false;
  ReferenceResult failure_ = ReferenceResult::kDone;
};

// Replaces `reference` everywhere and moves `position`, where one occurrence begins, behind what
// came in its place.
void ReplaceEverywhere(const std::string& reference, const std::string& replacement,
                       std::string& text, std::size_t& position) {
  const std::size_t occurrence = position;
  std::string replaced;
  std::size_t from = 0;
  for (;;) {
    const std::size_t found = text.find(reference, from);
    if (found == std::string::npos) break;
    replaced.append(text, from, found - from);
    replaced += replacement;
    if (found == occurrence) position = replaced.size();
    from = found + reference.size();
    // What is too long already need not grow any further.
    if (replaced.size() > limits::kUnescapedText) break;
  }
  replaced.append(text, from, std::string::npos);
  text.swap(replaced);
}

}  // namespace

ReferenceResult ReplaceReferencesInOnePass(const std::string& text, std::string& out) {
  out.clear();
  return OnePass(text, out).Run();
}

bool ReplaceReferencesOneByOne(std::string& text) {
  std::string replacement;
  std::size_t position = 0;
  std::size_t work = 0;
  for (;;) {
    const std::size_t open = text.find(kOpening, position);
    if (open == std::string::npos) return true;
    const std::size_t close = text.find(';', open + kOpeningLength);
    if (close == std::string::npos) return true;
    const std::string reference = text.substr(open, close - open + 1);
    const std::int32_t value = ReferenceValue(reference);
    if (value == 0) {
      position = close;
      continue;
    }
    replacement += LowByte(value);
    work += text.size();
    if (work > limits::kUnescapeWork) return false;
    position = open;
    ReplaceEverywhere(reference, replacement, text, position);
    if (text.size() > limits::kUnescapedText) return false;
  }
}

}  // namespace utils
}  // namespace vex_upnp
