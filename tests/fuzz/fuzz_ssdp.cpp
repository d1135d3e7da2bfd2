// A datagram, from the parser through the discovery listener to the description request.
//
// The first byte chooses the sender; the rest is the datagram. The network layer is not started, so
// there is nobody who could send anything: a request that discovery would make ends in a failed
// call, and no byte leaves the process.

#include <cstddef>
#include <cstdint>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/cp_discovery.h>
#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/httpparser.h>

#include "src/cp_discovery_manager.h"
#include "src/discovery_listener.h"

namespace {

using vex_upnp::cp_discovery::CPDiscoveryManager;
using vex_upnp::cp_discovery::DiscoveryListener;
using vex_upnp::utils::HTTPInfo;
using vex_upnp::utils::HTTPParser;

constexpr std::size_t kLongestDatagram = 8192;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > kLongestDatagram) return 0;
  const boost::shared_ptr<CPDiscoveryManager> manager = CPDiscoveryManager::GetInstance();
  boost::shared_ptr<HTTPInfo> info(new HTTPInfo);
  const unsigned int length = static_cast<unsigned int>(size - 1);
  if (HTTPParser::Parse(data + 1, length, info) != 0) return 0;
  info->SetClientIpAddress(data[0] % 2 == 0 ? "127.0.0.1" : "192.0.2.1");
  DiscoveryListener::GetInstance()->OnUDPRequestReceived(info);
  manager->RemoveNowRequestingAll();
  return 0;
}
