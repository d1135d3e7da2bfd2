#ifndef VEXSIM_TEXT_TEMPLATE_H_
#define VEXSIM_TEXT_TEMPLATE_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vexsim {

// What differs between devices made from one folder.
struct TemplateValues {
  // "http://ADDRESS:PORT/ID" and "/ID".
  std::string base;
  std::string prefix;
  // Empty for a device that is alone, " 2" and so on otherwise.
  std::string number;
  // Without "uuid:", in document order of the devices.
  std::vector<std::string> udns;
};

// A text with places {{base}}, {{prefix}}, {{number}} and {{udn}}; the n-th {{udn}} belongs to the
// n-th device of the document.
class TextTemplate {
 public:
  TextTemplate() = default;
  // Throws std::runtime_error on an unknown place.
  explicit TextTemplate(std::string_view text);

  std::string Render(const TemplateValues& values) const;
  std::size_t udn_places() const { return udn_places_; }

 private:
  enum class Kind { kText, kBase, kPrefix, kNumber, kUdn };
  struct Piece {
    Kind kind;
    std::string text;
    std::size_t udn;
  };

  void AddPlace(std::string_view name);

  std::vector<Piece> pieces_;
  std::size_t udn_places_ = 0;
};

}  // namespace vexsim

#endif  // VEXSIM_TEXT_TEMPLATE_H_
