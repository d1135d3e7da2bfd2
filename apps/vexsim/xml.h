#ifndef VEXSIM_XML_H_
#define VEXSIM_XML_H_

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexsim {

// An element of a small document: a device file of ours, or the body of a SOAP request.
struct XmlElement {
  // Without its prefix.
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  // All character data directly inside, references replaced.
  std::string text;
  std::vector<XmlElement> children;

  const XmlElement* Child(std::string_view child_name) const;
  // Trimmed text of that child; empty without one.
  std::string ChildText(std::string_view child_name) const;
  std::string Attribute(std::string_view attribute_name) const;
};

// Nothing when the text is not one well-formed element.
std::optional<XmlElement> ParseXml(std::string_view text);

std::string EscapeXml(std::string_view text);

}  // namespace vexsim

#endif  // VEXSIM_XML_H_
