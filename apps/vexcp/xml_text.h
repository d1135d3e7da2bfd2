#ifndef VEXCP_XML_TEXT_H_
#define VEXCP_XML_TEXT_H_

#include <string>

namespace vexcp {

// Replaces each reference, &lt; as well as &#233; and &#xE9;, by the character it stands for, in
// UTF-8. What is no reference stays as it is.
std::string DecodeReferences(const std::string& text);

// The value of an argument, fit to stand in a document.
std::string EscapeText(const std::string& text);

// Writes CDATA sections as plain escaped text, since the parser passes over their content.
std::string UnfoldCdata(const std::string& xml);

}  // namespace vexcp

#endif  // VEXCP_XML_TEXT_H_
