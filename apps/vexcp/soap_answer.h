#ifndef VEXCP_SOAP_ANSWER_H_
#define VEXCP_SOAP_ANSWER_H_

#include <optional>
#include <string>
#include <vector>

namespace vexcp {

struct NamedValue {
  std::string name;
  std::string value;
};

struct UpnpError {
  int code = 0;
  std::string description;
};

// How an action ended.
struct ActionResult {
  int status = 0;
  // The answer as it was received.
  std::string body;
  // In the order of the answer; nothing when it could not be read.
  std::optional<std::vector<NamedValue>> outputs;
  std::optional<UpnpError> error;

  bool succeeded() const { return outputs.has_value() && !error; }
  // The device says that it worked, in words that cannot be read.
  bool unreadable() const;
  // The value of one output; empty without it.
  std::string Output(const std::string& name) const;
};

ActionResult ReadAnswer(int status, const std::string& body);

// Why an action failed, in words. `service_type` tells what the codes from 700 on mean.
std::string ExplainFailure(const ActionResult& result, const std::string& service_type);

// What a UPnP error code means; empty for an unknown one.
std::string ErrorMeaning(int code, const std::string& service_type);

}  // namespace vexcp

#endif  // VEXCP_SOAP_ANSWER_H_
