#ifndef VEXUPNPCP_XMLPARSER_SRC_NUMBER_REFERENCES_H_
#define VEXUPNPCP_XMLPARSER_SRC_NUMBER_REFERENCES_H_

#include <string>

namespace vex_upnp {
namespace utils {

// Two ways to the same text, see ConvertSpecialNumbers. Replacing a reference everywhere before the
// next one is looked for is the definition, and costs a walk over the whole text for each. As long
// as nothing that is put in begins or cuts a reference, one pass gives the same.

enum class ReferenceResult { kDone, kTooMuch, kEntangled };

// Needs time and memory in proportion to `text` and the result. kEntangled when the text needs the
// long way; `out` is meaningful for kDone only. Throws std::bad_alloc.
ReferenceResult ReplaceReferencesInOnePass(const std::string& text, std::string& out);

// False when the text or the work pass their bounds, with `text` half done. Throws std::bad_alloc.
bool ReplaceReferencesOneByOne(std::string& text);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSER_SRC_NUMBER_REFERENCES_H_
