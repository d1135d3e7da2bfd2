#ifndef VEXSIM_UPNP_ERRORS_H_
#define VEXSIM_UPNP_ERRORS_H_

#include <string>

namespace vexsim {

// UPnP Device Architecture 1.0, table 3-3, and what the services add.
constexpr int kInvalidAction = 401;
constexpr int kInvalidArguments = 402;
constexpr int kActionFailed = 501;
constexpr int kArgumentInvalid = 600;
constexpr int kArgumentRange = 601;
constexpr int kTransitionNotAvailable = 701;
constexpr int kNoSuchObject = 701;
constexpr int kRenderingInvalidInstance = 702;
constexpr int kInvalidConnection = 706;
constexpr int kInvalidSearchCriteria = 708;
constexpr int kSeekModeNotSupported = 710;
constexpr int kNoSuchContainer = 710;
constexpr int kIllegalSeekTarget = 711;
constexpr int kTransportInvalidInstance = 718;

inline std::string ErrorText(int code) {
  switch (code) {
    case kInvalidAction:
      return "Invalid Action";
    case kInvalidArguments:
      return "Invalid Args";
    case kActionFailed:
      return "Action Failed";
    case kArgumentInvalid:
      return "Argument Value Invalid";
    case kArgumentRange:
      return "Argument Value Out of Range";
    case kTransitionNotAvailable:
      return "Not available now, or no such object";
    case kInvalidConnection:
      return "Invalid connection reference";
    case kInvalidSearchCriteria:
      return "Unsupported or invalid search criteria";
    case kSeekModeNotSupported:
      return "Seek mode not supported, or no such container";
    case kIllegalSeekTarget:
      return "Illegal seek target";
    case kRenderingInvalidInstance:
    case kTransportInvalidInstance:
      return "Invalid InstanceID";
    default:
      return "Error";
  }
}

}  // namespace vexsim

#endif  // VEXSIM_UPNP_ERRORS_H_
