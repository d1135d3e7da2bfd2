#ifndef VEXUPNPCP_XML_UTILS_H_
#define VEXUPNPCP_XML_UTILS_H_

#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

/// Escapes a text for use in a document: `"`, `&`, `'`, `<` and `>` by their names, each byte from
/// 1 to 31 by its decimal reference. All other bytes pass.
///
/// @param out  Receives the text; may be `in` itself. Untouched on failure.
/// @return 0; 3002 (result::kEmptyText) for an empty text; 3000 (result::kNoMemory).
VEX_EXPORT int XmlEscapeValue(const std::string& in, std::string& out);

/// Replaces `&lt;`, `&gt;`, `&apos;`, `&nbsp;` (by a blank) and `&quot;`, then numeric references
/// as ConvertSpecialNumbers does, and last `&amp;`, so that an escaped ampersand in front of `lt;`
/// comes out as `&lt;`. UnescapeXmlValue of cp_utils.h is another decoder with other rules.
///
/// @param out  Receives the text; may be `in` itself. Untouched on failure.
/// @return 0; 3002 (result::kEmptyText) for an empty text; 3000 (result::kNoMemory), also for a
///         text beyond the bound of ConvertSpecialNumbers.
VEX_EXPORT int XmlUnescapeValue(const std::string& in, std::string& out);

/// Replaces numeric references, `&#65;` and `&#x41;`, each by the low byte of its value, together
/// with the bytes of all different references before it: `&#65;&#66;` becomes `AAB`. All
/// occurrences of one reference get what the first one gets. A reference of value 0 stays.
///
/// @param text  Changed in place; untouched on failure.
/// @return 0; 3000 (result::kNoMemory) when memory is short or when the result would pass 16 MiB.
VEX_EXPORT int ConvertSpecialNumbers(std::string& text);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XML_UTILS_H_
