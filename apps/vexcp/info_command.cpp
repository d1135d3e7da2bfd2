#include <cstdio>
#include <memory>

#include "commands.h"
#include "description_tree.h"
#include "exit_status.h"
#include "output.h"

namespace vexcp {

namespace {

using nlohmann::json;

struct InfoOptions : CommonOptions {
  std::string udn;
  bool xml = false;
};

const char* DomainText(int domain) {
  constexpr int kThisMachine = 1, kOurSubnet = 2, kElsewhere = 3;
  switch (domain) {
    case kThisMachine:
      return "this machine";
    case kOurSubnet:
      return "in our network";
    case kElsewhere:
      return "in another network";
    default:
      return "unknown";
  }
}

void AddRow(std::vector<std::vector<std::string>>& rows, const char* label,
            const std::string& value) {
  if (!value.empty()) rows.push_back({label, Printable(value)});
}

std::string Details(const DeviceRecord& device) {
  std::vector<std::vector<std::string>> rows;
  AddRow(rows, "name", device.name);
  AddRow(rows, "type", device.type);
  AddRow(rows, "udn", device.Udn());
  AddRow(rows, "manufacturer", device.manufacturer);
  AddRow(rows, "model", device.model_name);
  AddRow(rows, "model number", device.model_number);
  AddRow(rows, "serial number", device.serial_number);
  AddRow(rows, "address", Address(device));
  AddRow(rows, "reached through", device.interface_name + ", our address " + device.local_ip);
  AddRow(rows, "lies", DomainText(device.domain));
  AddRow(rows, "description", device.location);
  AddRow(rows, "url base", device.url_base);
  for (const IconRecord& icon : device.icons)
    AddRow(rows, "icon", icon.width + "x" + icon.height + " " + icon.mimetype + " " + icon.url);
  return FormatTable(rows);
}

std::string Services(const DeviceRecord& device) {
  if (device.services.empty()) return "\nno services\n";
  std::vector<std::vector<std::string>> rows{{"SERVICE", "ID", "CONTROL", "EVENTS"}};
  for (const ServiceRecord& service : device.services)
    rows.push_back({ShortType(service.type), Printable(service.id), Printable(service.control_url),
                    Printable(service.event_sub_url)});
  return "\n" + FormatTable(rows);
}

// The devices of the same description, this one marked.
std::string Family(const DeviceRecord& device) {
  const std::vector<DescribedDevice> family = ReadDescription(device.description_xml);
  if (family.size() < 2) return std::string();
  std::vector<std::vector<std::string>> rows{{"DEVICES OF THIS DESCRIPTION", "TYPE", "UDN"}};
  std::vector<int> depths;
  constexpr int kDeepestIndent = 20;
  for (const DescribedDevice& member : family) {
    const int depth = member.parent < 0 ? 0 : depths[static_cast<std::size_t>(member.parent)] + 1;
    depths.push_back(std::min(depth, kDeepestIndent));
    rows.push_back({std::string(2 * static_cast<std::size_t>(depths.back()), ' ') +
                        Printable(member.name) + (member.udn == device.Udn() ? "  <--" : ""),
                    ShortType(member.type), Printable(member.udn)});
  }
  return "\n" + FormatTable(rows);
}

json FamilyJson(const DeviceRecord& device) {
  json list = json::array();
  for (const DescribedDevice& member : ReadDescription(device.description_xml))
    list.push_back(json{{"udn", member.udn},
                        {"name", member.name},
                        {"type", member.type},
                        {"parent", member.parent}});
  return list;
}

int Info(const InfoOptions& options) {
  ControlPoint control_point(options.Start());
  const DeviceRecord device = control_point.WaitFor(options.udn, options.wait());
  if (options.xml) {
    std::printf("%s\n", device.description_xml.c_str());
  } else if (options.json) {
    json value = DeviceJson(device);
    value["described_devices"] = FamilyJson(device);
    std::printf("%s\n", Dump(value).c_str());
  } else {
    std::printf("%s%s%s", Details(device).c_str(), Services(device).c_str(),
                Family(device).c_str());
  }
  return kDone;
}

}  // namespace

void AddInfoCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand("info", "show all about one device");
  command
      ->add_option("udn", options->udn,
                   "the device, as \"discover\" shows it: "
                   "uuid:X, X, or uuid:X+eth0 for one interface")
      ->required();
  command->add_flag("--xml", options->xml, "the description document as it was received");
  AddCommonOptions(*command, *options, "seconds to wait for the device");
  command->callback([options, &run] { run = [options] { return Info(*options); }; });
}

}  // namespace vexcp
