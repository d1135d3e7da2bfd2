#include "simulation.h"

#include <filesystem>
#include <stdexcept>

#include "text.h"

namespace vexsim {

namespace {

constexpr unsigned kMostOwnPorts = 100;

HttpResponse Status(int status) {
  HttpResponse response;
  response.status = status;
  return response;
}

// Cuts the body down to "bytes=FIRST-LAST" or "bytes=FIRST-"; any other form gets the whole.
void ApplyRange(std::string_view range, HttpResponse& response) {
  constexpr std::string_view kBytes = "bytes=";
  const std::size_t dash = range.find('-');
  if (range.substr(0, kBytes.size()) != kBytes || dash == std::string_view::npos) return;
  const std::size_t size = response.body.size();
  const auto first = ToNumber<std::size_t>(range.substr(kBytes.size(), dash - kBytes.size()));
  if (!first) return;
  const auto last = ToNumber<std::size_t>(range.substr(dash + 1)).value_or(size);
  if (*first >= size || last < *first) {
    response = Status(416);
    response.headers.emplace_back("CONTENT-RANGE", "bytes */" + std::to_string(size));
    return;
  }
  response.status = 206;
  response.body = response.body.substr(*first, last - *first + 1);
  response.headers.emplace_back("CONTENT-RANGE",
                                "bytes " + std::to_string(*first) + "-" +
                                    std::to_string(*first + response.body.size() - 1) + "/" +
                                    std::to_string(size));
}

}  // namespace

Simulation::Simulation(EventLoop& loop, const Options& options)
    : loop_(loop),
      options_(options),
      fleet_(options.seed),
      services_(loop, statistics_),
      http_(loop, statistics_, !options.close_connections,
            [this](const HttpRequest& request) { return Respond(request); }),
      ssdp_(loop, fleet_, statistics_, options.ssdp),
      next_port_(options.port) {
  if (options.announce_interval_s > 0)
    loop_.After(std::chrono::seconds(options.announce_interval_s), [this] { AnnounceAgain(); });
}

void Simulation::AnnounceAgain() {
  for (const auto& [id, device] : fleet_.devices())
    if (device->alive) ssdp_.Announce(*device);
  loop_.After(std::chrono::seconds(options_.announce_interval_s), [this] { AnnounceAgain(); });
}

std::shared_ptr<const DeviceFolder> Simulation::Folder(const std::string& name, unsigned services) {
  const bool generated = name == kGeneratedName;
  std::shared_ptr<const DeviceFolder>& folder =
      folders_[generated ? name + "/" + std::to_string(services) : name];
  if (folder) return folder;
  if (generated) return folder = MakeGeneratedDevice(services);
  namespace fs = std::filesystem;
  const fs::path path =
      name.find('/') == std::string::npos ? fs::path(options_.devices_dir) / name : fs::path(name);
  if (!fs::is_directory(path))
    throw std::runtime_error("no device folder " + path.string() +
                             "; known here: " + KnownDevices(options_.devices_dir));
  return folder = ReadDeviceFolder(path.string());
}

unsigned short Simulation::PortFor(unsigned count) {
  const bool own = options_.ports == PortUse::kOwn ||
                   (options_.ports == PortUse::kAuto && count <= kMostOwnPorts);
  if (!own && shared_port_ != 0) return shared_port_;
  const unsigned short port = http_.Listen(next_port_);
  if (next_port_ != 0) ++next_port_;
  if (!own) shared_port_ = port;
  return port;
}

std::vector<unsigned> Simulation::Add(const std::string& name, unsigned count, unsigned services) {
  const std::shared_ptr<const DeviceFolder> folder = Folder(name, services);
  std::vector<unsigned> ids;
  for (unsigned n = 0; n < count; ++n) {
    const unsigned short port = PortFor(count);
    Device& device = fleet_.Add(folder, count == 1);
    device.port = port;
    ids.push_back(device.id());
  }
  return ids;
}

void Simulation::ClosePort(const Device& device) {
  if (device.port != shared_port_) http_.Close(device.port);
}

void Simulation::Remove(unsigned id, bool silent) {
  const Device* device = fleet_.Find(id);
  if (device == nullptr) return;
  if (device->alive && !silent) ssdp_.Byebye(*device);
  if (device->alive) ClosePort(*device);
  services_.Forget(id);
  fleet_.Remove(id);
}

void Simulation::RemoveAll(bool silent) {
  while (!fleet_.devices().empty()) Remove(fleet_.devices().begin()->first, silent);
}

void Simulation::Kill(Device& device) {
  if (!device.alive) return;
  device.alive = false;
  // Its subscribers and the settings of its owner are lost with the power.
  services_.Forget(device.id());
  ClosePort(device);
}

void Simulation::Revive(Device& device) {
  if (!device.alive && device.port != shared_port_) http_.Listen(device.port);
  device.alive = true;
  ssdp_.Announce(device);
}

HttpResponse Simulation::Respond(const HttpRequest& request) {
  const std::size_t slash = request.path.find('/', 1);
  if (request.path.empty() || request.path[0] != '/' || slash == std::string::npos)
    return Status(404);
  const auto id = ToNumber<unsigned>(std::string_view(request.path).substr(1, slash - 1));
  Device* device = id ? fleet_.Find(*id) : nullptr;
  if (device == nullptr || !device->alive || device->port != request.local_port) return Status(404);
  // A URLBase that ends in a slash and a client that adds one make two; servers take them as one.
  const std::size_t rest = request.path.find_first_not_of('/', slash);
  return RespondFor(*device, rest == std::string::npos ? std::string() : request.path.substr(rest),
                    request);
}

HttpResponse Simulation::RespondFor(Device& device, const std::string& path,
                                    const HttpRequest& request) {
  if (const auto response = services_.Handle(device, path, request)) return *response;
  if (request.method != "GET" && request.method != "HEAD") return Status(405);
  HttpResponse response;
  if (path == kDescriptionPath) {
    ++statistics_.descriptions;
    response.content_type = "text/xml; charset=\"utf-8\"";
    response.body = device.Description(request.Authority());
    return response;
  }
  const auto document = device.folder().documents.find(path);
  if (document == device.folder().documents.end()) return Status(404);
  for (const ServiceModel& service : device.folder().services) {
    if (service.scpd_path != path) continue;
    ++statistics_.service_descriptions;
    break;
  }
  response.content_type = document->second.content_type;
  response.body = document->second.body;
  ApplyRange(request.Header("Range"), response);
  return response;
}

}  // namespace vexsim
