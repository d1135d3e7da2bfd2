#ifndef VEXSIM_SIMULATION_H_
#define VEXSIM_SIMULATION_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "event_loop.h"
#include "fleet.h"
#include "http_server.h"
#include "options.h"
#include "service_host.h"
#include "ssdp_server.h"
#include "statistics.h"

namespace vexsim {

// The simulated network: the devices and the two servers that speak for them.
class Simulation {
 public:
  Simulation(EventLoop& loop, const Options& options);

  // Makes `count` devices from a folder (a name of --devices, or a path), or generated ones.
  // Returns their ids; nothing is announced yet. Throws std::runtime_error.
  std::vector<unsigned> Add(const std::string& folder, unsigned count, unsigned services);
  // Says byebye (unless `silent`) and takes the device away.
  void Remove(unsigned id, bool silent);
  // The device falls silent in the middle of a word; its port closes unless it is shared.
  void Kill(Device& device);
  // A killed device comes back and announces itself.
  void Revive(Device& device);
  void RemoveAll(bool silent);

  Fleet& fleet() { return fleet_; }
  SsdpServer& ssdp() { return ssdp_; }
  HttpServer& http() { return http_; }
  ServiceHost& services() { return services_; }
  Statistics& statistics() { return statistics_; }

 private:
  HttpResponse Respond(const HttpRequest& request);
  HttpResponse RespondFor(Device& device, const std::string& path, const HttpRequest& request);
  std::shared_ptr<const DeviceFolder> Folder(const std::string& name, unsigned services);
  unsigned short PortFor(unsigned count);
  void ClosePort(const Device& device);
  void AnnounceAgain();

  EventLoop& loop_;
  const Options options_;
  Statistics statistics_;
  Fleet fleet_;
  ServiceHost services_;
  HttpServer http_;
  SsdpServer ssdp_;
  // Serves all devices that have no port of their own; 0 before the first of these.
  unsigned short shared_port_ = 0;
  unsigned short next_port_;
  std::map<std::string, std::shared_ptr<const DeviceFolder>> folders_;
};

}  // namespace vexsim

#endif  // VEXSIM_SIMULATION_H_
