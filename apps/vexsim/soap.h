#ifndef VEXSIM_SOAP_H_
#define VEXSIM_SOAP_H_

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexsim {

using Arguments = std::vector<std::pair<std::string, std::string>>;

struct ActionRequest {
  std::string service_type;
  std::string action;
  Arguments arguments;

  // Empty without that argument.
  std::string Argument(std::string_view name) const;
};

// Reads a control request: the SOAPACTION header and the envelope must name the same action.
std::optional<ActionRequest> ParseActionRequest(std::string_view soap_action,
                                                const std::string& body);

std::string FormatActionAnswer(const ActionRequest& request, const Arguments& results);
std::string FormatFault(int code, const std::string& description);

}  // namespace vexsim

#endif  // VEXSIM_SOAP_H_
