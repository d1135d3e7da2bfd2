#ifndef VEXSIM_SEARCH_CRITERIA_H_
#define VEXSIM_SEARCH_CRITERIA_H_

#include <functional>
#include <optional>
#include <string>

namespace vexsim {

// The value of a property of one object, as "dc:title"; nothing when it has none.
using PropertyReader = std::function<std::optional<std::string>(const std::string&)>;
using SearchFilter = std::function<bool(const PropertyReader&)>;

// Reads the SearchCriteria of a content directory: "*", or comparisons joined by "and" and "or",
// of which "and" binds closer, with parentheses. Nothing when the text is malformed.
std::optional<SearchFilter> ParseSearchCriteria(const std::string& text);

}  // namespace vexsim

#endif  // VEXSIM_SEARCH_CRITERIA_H_
