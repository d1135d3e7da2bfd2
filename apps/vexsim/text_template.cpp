#include "text_template.h"

#include <stdexcept>

namespace vexsim {

TextTemplate::TextTemplate(std::string_view text) {
  for (;;) {
    const std::size_t open = text.find("{{");
    if (open != 0) pieces_.push_back({Kind::kText, std::string(text.substr(0, open)), 0});
    if (open == std::string_view::npos) return;
    const std::size_t close = text.find("}}", open);
    if (close == std::string_view::npos) throw std::runtime_error("\"{{\" without \"}}\"");
    AddPlace(text.substr(open + 2, close - open - 2));
    text.remove_prefix(close + 2);
  }
}

void TextTemplate::AddPlace(std::string_view name) {
  if (name == "base") {
    pieces_.push_back({Kind::kBase, {}, 0});
  } else if (name == "prefix") {
    pieces_.push_back({Kind::kPrefix, {}, 0});
  } else if (name == "number") {
    pieces_.push_back({Kind::kNumber, {}, 0});
  } else if (name == "udn") {
    pieces_.push_back({Kind::kUdn, {}, udn_places_++});
  } else {
    throw std::runtime_error("unknown place {{" + std::string(name) + "}}");
  }
}

std::string TextTemplate::Render(const TemplateValues& values) const {
  std::string out;
  for (const Piece& piece : pieces_) {
    switch (piece.kind) {
      case Kind::kText:
        out += piece.text;
        break;
      case Kind::kBase:
        out += values.base;
        break;
      case Kind::kPrefix:
        out += values.prefix;
        break;
      case Kind::kNumber:
        out += values.number;
        break;
      case Kind::kUdn:
        out += values.udns.at(piece.udn);
        break;
    }
  }
  return out;
}

}  // namespace vexsim
