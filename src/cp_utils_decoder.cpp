#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/result_codes.h>

namespace vex_upnp {
namespace cp_utils {

namespace {

// Where a numeric reference may end, counted from its "&".
constexpr std::size_t kFirstEnd = 2;
constexpr std::size_t kLastEnd = 6;
constexpr int kDecimal = 10;
constexpr int kHexadecimal = 16;

struct Entity {
  const char* name;
  std::size_t length;
  char character;
};

constexpr Entity kQuote{"&quot;", 6, '"'};
constexpr Entity kBlank{"&nbsp;", 6, ' '};
constexpr Entity kGreater{"&gt;", 4, '>'};
constexpr Entity kLess{"&lt;", 4, '<'};
constexpr Entity kAmpersand{"&amp;", 5, '&'};
constexpr Entity kApostrophe{"&apos;", 6, '\''};

// One walk over a text. XmlUnescapeValue is another decoder with other rules.
class Decoder {
 public:
  Decoder(const std::string& in, std::string& out) : in_(in), out_(out) {}

  void Run() {
    while (At(0) != '\0') {
      if (At(0) != '&') {
        Write(At(0), 1);
      } else if (!DecodeEntity()) {
        DecodeNumber();
      }
    }
  }

 private:
  // The NUL at the end, from there on.
  char At(std::size_t offset) const {
    return offset < in_.size() - position_ ? in_[position_ + offset] : '\0';
  }

  void Write(char character, std::size_t read) {
    out_ += character;
    ++written_;
    // An entity that was found further on may be longer than the rest.
    position_ = read < in_.size() - position_ ? position_ + read : in_.size();
  }

  // KEPT: looks for the entity anywhere behind as many characters as have been written, not at
  // the place that is read.
  bool Replace(const Entity& entity) {
    if (in_.find(entity.name, written_) == std::string::npos) return false;
    Write(entity.character, entity.length);
    return true;
  }

  // False when what follows the "&" begins no known entity.
  bool DecodeEntity() {
    bool replaced = false;
    switch (At(1)) {
      case 'q':
        replaced = Replace(kQuote);
        break;
      case 'n':
        replaced = Replace(kBlank);
        break;
      case 'g':
        replaced = Replace(kGreater);
        break;
      case 'l':
        replaced = Replace(kLess);
        break;
      case 'a':
        replaced = Replace(kAmpersand) || Replace(kApostrophe);
        break;
      default:
        return false;
    }
    if (!replaced) Write('&', 1);
    return true;
  }

  void DecodeNumber() {
    if (in_.find("&#", written_) == std::string::npos) {
      Write('&', 1);
      return;
    }
    for (std::size_t end = kFirstEnd; end <= kLastEnd; ++end) {
      if (At(end) != ';') continue;
      const bool hexadecimal = At(2) == 'x';
      const char* const digits = in_.c_str() + position_ + (hexadecimal ? 3 : 2);
      const long value = std::strtol(digits, nullptr, hexadecimal ? kHexadecimal : kDecimal);
      Write(static_cast<char>(static_cast<unsigned char>(value & 0xFF)), end + 1);
      return;
    }
    // KEPT: a reference without its end is looked at again and again, see the header.
    std::this_thread::yield();
  }

  const std::string& in_;
  std::string& out_;
  std::size_t position_ = 0;
  std::size_t written_ = 0;
};

}  // namespace

int UnescapeXmlValue(const std::string& in, std::string& out) try {
  if (in.empty()) return result::kFailure;
  Decoder(in, out).Run();
  return result::kOk;
} catch (const std::bad_alloc&) {
  return result::kFailure;
}

}  // namespace cp_utils
}  // namespace vex_upnp
