#ifndef VEXCP_OUTPUT_H_
#define VEXCP_OUTPUT_H_

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "device_record.h"

namespace vexcp {

// A text from the network, fit for a terminal: control characters become "?".
std::string Printable(const std::string& text);

// The time of day and a blank, to begin a line with.
std::string Clock();

// "MediaRenderer:1" for the types of the UPnP Forum, others whole.
std::string ShortType(const std::string& type);

// "ADDRESS:PORT"
std::string Address(const DeviceRecord& device);

// Lines of cells in columns as wide as they need to be. The last column is not padded.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

// The table of devices with embedded ones indented under their parents; with `services`, each
// device is followed by its services.
std::string FormatDevices(const std::vector<DeviceRecord>& devices, bool services);

nlohmann::json DeviceJson(const DeviceRecord& device);

// On one line; bytes that are no UTF-8 are replaced.
std::string Dump(const nlohmann::json& value);

}  // namespace vexcp

#endif  // VEXCP_OUTPUT_H_
