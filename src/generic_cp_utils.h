#ifndef VEXUPNPCP_SRC_GENERIC_CP_UTILS_H_
#define VEXUPNPCP_SRC_GENERIC_CP_UTILS_H_

#include <list>
#include <memory>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/cp_utils.h>
#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/generic_cp.h>

namespace vex_upnp {
namespace generic_cp {

// From the library's records to those of the host. Each allocates its record and all of its strings
// before it copies the first byte, writes `*out` on success only and leaves nothing behind on
// failure: CP_ERR_INVALID_PARAMS for a null `out`, CP_ERR_OUT_OF_MEMORY.
int GetCPDeviceInfoFromDeviceInfo(CPDeviceInfo** out, cp_discovery::DeviceInfo& in);
int GetCPDetailedDeviceInfoFromDetailedDeviceInfo(CPDetailedDeviceInfo** out,
                                                  cp_discovery::DetailedDeviceInfo& in);
int GetCPDeviceIconFromDeviceIcon(CPDeviceIcon** out, cp_discovery::DeviceIconInfo& in);
int GetCPDeviceServiceFromDeviceService(CPDeviceServiceInfo** out,
                                        cp_discovery::DeviceServiceInfo& in);
// An empty list gives null.
errorcodes GetCPArgumentListFromArgumentList(CPArgument** out,
                                             std::list<cp_utils::CPUtilsArgument>& in);

// The strings and the record, and with it the chains that hang on it.
void FreeCPDeviceInfo(CPDeviceInfo* info);
void FreeCPDetailedDeviceInfo(CPDetailedDeviceInfo* info);
// The strings and the record, not the chain that it is part of.
void FreeCPDeviceIcon(CPDeviceIcon* icon);
void FreeCPDeviceServiceInfo(CPDeviceServiceInfo* service);
// Whole lists. An empty one gives CP_ERR_INVALID_PARAMS.
int FreeCPDeviceInfoList(CPDeviceInfo* list);
// An empty one is no fault; always 0.
int FreeCPArgumentList(CPArgument* list);

// A record or list that one of the functions above frees.
template <auto Free>
struct FreeBy {
  template <typename Record>
  void operator()(Record* record) const {
    Free(record);
  }
};
template <typename Record, auto Free>
using Owned = std::unique_ptr<Record, FreeBy<Free>>;

}  // namespace generic_cp
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_GENERIC_CP_UTILS_H_
