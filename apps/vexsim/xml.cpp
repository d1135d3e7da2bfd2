#include "xml.h"

#include <cstdlib>

#include "text.h"

namespace vexsim {

namespace {

constexpr int kDeepest = 64;
constexpr std::string_view kSpace = " \t\r\n";

std::string_view LocalName(std::string_view name) {
  const std::size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

void AppendUtf8(std::string& out, unsigned long code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
    return;
  }
  if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | ((code >> 18) & 0x07));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
  }
  out += static_cast<char>(0x80 | (code & 0x3F));
}

// Appends what the reference between "&" and ";" stands for.
void AppendReference(std::string& out, std::string_view name) {
  if (name == "lt") {
    out += '<';
  } else if (name == "gt") {
    out += '>';
  } else if (name == "amp") {
    out += '&';
  } else if (name == "quot") {
    out += '"';
  } else if (name == "apos") {
    out += '\'';
  } else if (name.size() > 1 && name[0] == '#') {
    const bool hexadecimal = name[1] == 'x' || name[1] == 'X';
    const std::string digits(name.substr(hexadecimal ? 2 : 1));
    AppendUtf8(out, std::strtoul(digits.c_str(), nullptr, hexadecimal ? 16 : 10));
  }
}

std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t amp = text.find('&');
    out += text.substr(0, amp);
    if (amp == std::string_view::npos) break;
    const std::size_t end = text.find(';', amp);
    if (end == std::string_view::npos) break;
    AppendReference(out, text.substr(amp + 1, end - amp - 1));
    text.remove_prefix(end + 1);
  }
  return out;
}

class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  std::optional<XmlElement> Document() {
    if (!SkipMisc()) return std::nullopt;
    XmlElement root;
    if (!Element(root, 0)) return std::nullopt;
    return root;
  }

 private:
  bool StartsWith(std::string_view prefix) const {
    return rest_.substr(0, prefix.size()) == prefix;
  }

  void SkipSpace() {
    const std::size_t first = rest_.find_first_not_of(kSpace);
    rest_.remove_prefix(first == std::string_view::npos ? rest_.size() : first);
  }

  bool SkipPast(std::string_view mark) {
    const std::size_t found = rest_.find(mark);
    if (found == std::string_view::npos) return false;
    rest_.remove_prefix(found + mark.size());
    return true;
  }

  // Prolog and comments in front of the root element.
  bool SkipMisc() {
    for (;;) {
      SkipSpace();
      if (StartsWith("\xEF\xBB\xBF")) {
        rest_.remove_prefix(3);
      } else if (StartsWith("<?")) {
        if (!SkipPast("?>")) return false;
      } else if (StartsWith("<!--")) {
        if (!SkipPast("-->")) return false;
      } else {
        return StartsWith("<");
      }
    }
  }

  std::string_view Name() {
    const std::size_t end = rest_.find_first_of(" \t\r\n=/>");
    const std::string_view name = rest_.substr(0, end);
    rest_.remove_prefix(name.size());
    return name;
  }

  bool Attributes(XmlElement& element) {
    for (;;) {
      SkipSpace();
      if (rest_.empty()) return false;
      if (rest_[0] == '/' || rest_[0] == '>') return true;
      const std::string name(LocalName(Name()));
      SkipSpace();
      if (name.empty() || !StartsWith("=")) return false;
      rest_.remove_prefix(1);
      SkipSpace();
      if (rest_.empty() || (rest_[0] != '"' && rest_[0] != '\'')) return false;
      const std::size_t end = rest_.find(rest_[0], 1);
      if (end == std::string_view::npos) return false;
      element.attributes.emplace_back(name, Unescape(rest_.substr(1, end - 1)));
      rest_.remove_prefix(end + 1);
    }
  }

  bool Element(XmlElement& element, int depth) {
    if (depth > kDeepest || !StartsWith("<")) return false;
    rest_.remove_prefix(1);
    const std::string_view tag = Name();
    if (tag.empty()) return false;
    element.name = LocalName(tag);
    if (!Attributes(element)) return false;
    if (StartsWith("/>")) {
      rest_.remove_prefix(2);
      return true;
    }
    if (!StartsWith(">")) return false;
    rest_.remove_prefix(1);
    return Content(element, tag, depth);
  }

  bool Content(XmlElement& element, std::string_view tag, int depth) {
    for (;;) {
      const std::size_t mark = rest_.find('<');
      if (mark == std::string_view::npos) return false;
      element.text += Unescape(rest_.substr(0, mark));
      rest_.remove_prefix(mark);
      if (StartsWith("</")) return EndTag(tag);
      if (StartsWith("<!--")) {
        if (!SkipPast("-->")) return false;
      } else if (StartsWith("<![CDATA[")) {
        const std::size_t begin = 9, end = rest_.find("]]>");
        if (end == std::string_view::npos) return false;
        element.text += rest_.substr(begin, end - begin);
        rest_.remove_prefix(end + 3);
      } else {
        element.children.emplace_back();
        if (!Element(element.children.back(), depth + 1)) return false;
      }
    }
  }

  bool EndTag(std::string_view tag) {
    rest_.remove_prefix(2);
    if (Name() != tag) return false;
    SkipSpace();
    if (!StartsWith(">")) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view rest_;
};

}  // namespace

const XmlElement* XmlElement::Child(std::string_view child_name) const {
  for (const XmlElement& child : children)
    if (child.name == child_name) return &child;
  return nullptr;
}

std::string XmlElement::ChildText(std::string_view child_name) const {
  const XmlElement* child = Child(child_name);
  return child == nullptr ? std::string() : std::string(Trim(child->text));
}

std::string XmlElement::Attribute(std::string_view attribute_name) const {
  for (const auto& [name_of, value] : attributes)
    if (name_of == attribute_name) return value;
  return std::string();
}

std::optional<XmlElement> ParseXml(std::string_view text) { return Reader(text).Document(); }

std::string EscapeXml(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace vexsim
