#include "output.h"

#include <algorithm>
#include <ctime>

#include "device_tree.h"

namespace vexcp {

namespace {

using nlohmann::json;

constexpr char kForumDevice[] = "urn:schemas-upnp-org:device:";
constexpr char kForumService[] = "urn:schemas-upnp-org:service:";
// Deeper devices stand where these do, or a hostile description could fill the screen with blanks.
constexpr int kDeepestIndent = 20;

// Columns that a UTF-8 text takes, wide characters apart.
std::size_t Width(const std::string& text) {
  constexpr unsigned kKindMask = 0xC0, kContinuation = 0x80;
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & kKindMask) != kContinuation;
  }));
}

std::string Indent(int depth) {
  if (depth == 0) return std::string();
  return std::string(2 * static_cast<std::size_t>(std::min(depth, kDeepestIndent) - 1), ' ') + "`-";
}

}  // namespace

std::string Printable(const std::string& text) {
  constexpr unsigned char kFirstPrintable = 0x20, kDelete = 0x7F;
  std::string out = text;
  for (char& c : out) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < kFirstPrintable || byte == kDelete) c = '?';
  }
  return out;
}

std::string Clock() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char text[16] = "";
  std::strftime(text, sizeof(text), "%H:%M:%S ", &parts);
  return text;
}

std::string ShortType(const std::string& type) {
  for (const std::string prefix : {kForumDevice, kForumService})
    if (type.compare(0, prefix.size(), prefix) == 0) return Printable(type.substr(prefix.size()));
  return Printable(type);
}

std::string Address(const DeviceRecord& device) {
  return Printable(device.device_ip) + ":" + std::to_string(device.device_port);
}

std::string FormatTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const std::vector<std::string>& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    // A line of one cell is a remark that goes across the columns.
    if (row.size() > 1)
      for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  std::string text;
  for (const std::vector<std::string>& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - Width(row[i]) + 2, ' ');
    }
    text += '\n';
  }
  return text;
}

std::string FormatDevices(const std::vector<DeviceRecord>& devices, bool services) {
  std::vector<std::vector<std::string>> rows{{"NAME", "TYPE", "ADDRESS", "INTERFACE", "UDN"}};
  for (const TreeRow& row : MakeTree(devices)) {
    const DeviceRecord& device = devices[row.device];
    const std::string indent = Indent(row.depth);
    rows.push_back({indent + Printable(device.name), ShortType(device.type), Address(device),
                    device.interface_name, Printable(device.Udn())});
    if (!services) continue;
    for (const ServiceRecord& service : device.services)
      rows.push_back({std::string(indent.size(), ' ') + "  * " + ShortType(service.type) + "  (" +
                      Printable(service.id) + ")"});
  }
  return FormatTable(rows);
}

json DeviceJson(const DeviceRecord& device) {
  json services = json::array();
  for (const ServiceRecord& service : device.services)
    services.push_back(json{{"type", service.type},
                            {"id", service.id},
                            {"scpd_url", service.scpd_url},
                            {"control_url", service.control_url},
                            {"event_sub_url", service.event_sub_url}});
  json icons = json::array();
  for (const IconRecord& icon : device.icons)
    icons.push_back(json{{"mimetype", icon.mimetype},
                         {"width", icon.width},
                         {"height", icon.height},
                         {"depth", icon.depth},
                         {"url", icon.url}});
  return json{{"key", device.key},
              {"udn", device.Udn()},
              {"name", device.name},
              {"display_name", device.display_name},
              {"type", device.type},
              {"interface", device.interface_name},
              {"address", device.device_ip},
              {"port", device.device_port},
              {"local_address", device.local_ip},
              {"location", device.location},
              {"url_base", device.url_base},
              {"manufacturer", device.manufacturer},
              {"model_name", device.model_name},
              {"model_number", device.model_number},
              {"serial_number", device.serial_number},
              {"domain", device.domain},
              {"icons", icons},
              {"services", services}};
}

std::string Dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace vexcp
