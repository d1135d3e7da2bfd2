#include "src/device_list.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include <boost/thread/lock_guard.hpp>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "base/limits.h"
#include "base/log.h"
#include "base/log_limit.h"
#include "base/singleton.h"
#include "src/device_type.h"
#include "src/upnp_constants.h"

namespace vex_upnp {
namespace cp_discovery {
namespace {

constexpr const char* kTag = log::kTagDiscovery;

constexpr char kMakerPrefix[] = "Tolmark ";
constexpr std::size_t kMakerPrefixLength = sizeof(kMakerPrefix) - 1;
// A list's node and the allocator's own share, roughly.
constexpr std::size_t kNodeCost = 32;

bool IsGlobal(const std::string& type) { return type == kSearchAll || type == kRootDevice; }

bool BelongsToSearch(const Device& device, const std::string& type) {
  return IsGlobal(type) || device.device_type == type;
}

// The first word of the model description behind the maker's name, in brackets.
// KEPT: a word of a single character gives no prefix, nor does one with nothing behind it.
std::string DisplayNamePrefix(const std::string& model_description) {
  if (model_description.compare(0, kMakerPrefixLength, kMakerPrefix) != 0) return std::string();
  const std::string rest = model_description.substr(kMakerPrefixLength);
  const std::size_t blank = rest.find(' ');
  if (blank == std::string::npos || blank < 2) return std::string();
  return "[" + rest.substr(0, blank) + "]";
}

constexpr std::string Device::*kDeviceTexts[] = {
    &Device::description_url,
    &Device::spec_minor,
    &Device::spec_major,
    &Device::dlna_cap,
    &Device::device_type,
    &Device::friendly_name,
    &Device::manufacturer,
    &Device::manufacturer_url,
    &Device::model_description,
    &Device::model_name,
    &Device::model_number,
    &Device::model_url,
    &Device::udn,
    &Device::base_url,
    &Device::url_base,
    &Device::upc,
    &Device::serial_number,
    &Device::presentation_url,
    &Device::ip,
    &Device::display_name,
    &Device::interface_ip,
    &Device::interface_name,
};

std::size_t SizeOfTexts(const DeviceIcon& icon) {
  return icon.mimetype.size() + icon.width.size() + icon.height.size() + icon.depth.size() +
         icon.url.size() + icon.reserved.size();
}

std::size_t SizeOfTexts(const ServiceInfo& service) {
  return service.service_key.size() + service.service_owner.size() + service.service_type.size() +
         service.service_id.size() + service.scpd_url.size() + service.control_url.size() +
         service.event_sub_url.size() + service.scpd_xml.size();
}

std::size_t SizeOfTexts(const AdditionalFieldInfo& field) {
  return field.name.size() + field.value.size();
}

template <typename Record>
std::size_t SizeOfAll(const std::list<std::unique_ptr<Record>>& records) {
  std::size_t bytes = records.size() * (sizeof(Record) + kNodeCost);
  for (const auto& record : records) bytes += SizeOfTexts(*record);
  return bytes;
}

// What a device costs in memory, but for the description, which it may share.
std::size_t Footprint(const Device& device) {
  // The key stands in the index, too.
  std::size_t bytes = sizeof(Device) + device.udn.size();
  for (std::string Device::*const text : kDeviceTexts) bytes += (device.*text).size();
  return bytes + SizeOfAll(device.icons) + SizeOfAll(device.services) +
         SizeOfAll(device.additional_fields);
}

// Makes the device count in the bound on what all devices hold together; false without room. The
// description counts with the device that brings it, on behalf of all that share it.
bool TakesItsPlace(Device& device) {
  if (!device.held.GrowTo(Footprint(device))) return false;
  if (!device.description_xml || device.description_held) return true;
  const boost::shared_ptr<HeldBytes> held(new HeldBytes);
  if (!held->GrowTo(device.description_xml->size())) return false;
  device.description_held = held;
  return true;
}

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsTypeLetter(char c) { return IsLetter(c) || c == '|'; }
bool IsDomainLetter(char c) { return IsTypeLetter(c) || c == '-'; }

// Takes a run of one letter or more off the front of `text`.
bool TakeRun(std::string_view& text, bool (*is_wanted)(char)) {
  const auto end = std::find_if_not(text.begin(), text.end(), is_wanted);
  if (end == text.begin()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
  return true;
}

bool TakeText(std::string_view& text, std::string_view wanted) {
  if (text.substr(0, wanted.size()) != wanted) return false;
  text.remove_prefix(wanted.size());
  return true;
}

// "urn:", a domain of letters and hyphens, ":device:", a type of letters, ":", a version.
//
// KEPT: a bar passes for a letter; and only one digit of version fits, though the devices
// themselves may have more.
bool IsVendorType(std::string_view type) {
  return TakeText(type, "urn:") && TakeRun(type, &IsDomainLetter) && TakeText(type, ":device:") &&
         TakeRun(type, &IsTypeLetter) && TakeText(type, ":") && type.size() == 1 &&
         type[0] >= '0' && type[0] <= '9';
}

// The addresses with a running streaming session, and the kind of session.
std::map<std::string, int> StreamingAddresses() {
  std::map<std::string, int> addresses;
  streaming::stRunningSession* found = nullptr;
  if (streaming::GetRunningSessionInfo(&found) != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "GetRunningSession failed.");
    return addresses;
  }
  const std::unique_ptr<streaming::stRunningSession, decltype(&streaming::FreeRunningSession)>
      sessions(found, &streaming::FreeRunningSession);
  for (const streaming::stRunningSession* session = sessions.get(); session != nullptr;
       session = session->next) {
    if (session->ip != nullptr) addresses[session->ip] = session->type;
  }
  return addresses;
}

// The devices and all that are embedded in them, each once and parents first. A description may
// embed devices in one another as deep as it likes, so each one's children are put in behind it.
DeviceList::Devices WithEmbedded(DeviceList::Devices devices) {
  std::unordered_set<const Device*> known;
  for (auto device = devices.begin(); device != devices.end();) {
    if (!known.insert(device->get()).second) {
      device = devices.erase(device);
      continue;
    }
    const DeviceList::Devices& embedded = (*device)->embedded_devices;
    device = devices.insert(std::next(device), embedded.begin(), embedded.end());
  }
  return devices;
}

// Probes `addresses` a batch at a time; each batch takes the whole time-out.
int ProbeInBatches(DeviceList::Addresses& addresses, int timeout,
                   boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   bool& stop) {
  if (addresses.size() <= limits::kReachabilityBatch) {
    return network_layer::IsReachable(addresses, timeout, lock, condition, stop);
  }
  auto next = addresses.begin();
  while (next != addresses.end()) {
    // The records are shared, so the answers arrive in `addresses`.
    DeviceList::Addresses batch;
    for (; next != addresses.end() && batch.size() < limits::kReachabilityBatch; ++next) {
      batch.insert(*next);
    }
    const int result = network_layer::IsReachable(batch, timeout, lock, condition, stop);
    if (result != result::kOk) return result;
  }
  return result::kOk;
}

}  // namespace

boost::shared_ptr<DeviceList>& DeviceList::instance_ = *new boost::shared_ptr<DeviceList>;
boost::mutex& DeviceList::singleton_mutex_ = *new boost::mutex;

boost::shared_ptr<DeviceList> DeviceList::GetInstance() {
  return GetOrCreateShared(instance_, singleton_mutex_, [] { return new DeviceList; });
}

void DeviceList::Terminate() {
  const boost::shared_ptr<DeviceList> ended = ExistingShared(instance_, singleton_mutex_);
  if (ended) ended->ClearDeviceList();
  DestroyShared(instance_, singleton_mutex_);
}

void DeviceList::ClearDeviceList() {
  // Declared outside the lock's scope: the devices go when it has been released.
  Entries cleared;
  boost::lock_guard<boost::recursive_mutex> lock(device_list_mutex);
  cleared.swap(devices_);
  by_udn_.clear();
  by_device_.clear();
}

bool DeviceList::Add(boost::shared_ptr<Device>& device) {
  if (!device) {
    VEX_LOG(kLogMajor, kTag, "Error, invalid device in DeviceList::Add");
    return false;
  }
  const std::string name = DisplayNamePrefix(device->model_description) + device->friendly_name;
  // A device that comes back has its name already, and others may be reading it.
  if (device->display_name != name) device->display_name = name;
  if (devices_.size() >= limits::kListedDevices || !TakesItsPlace(*device)) {
    static LogLimit once_a_second;
    if (once_a_second.Due()) {
      VEX_LOG(kLogMajor, kTag, "Device list is full, device not listed [%s]", device->udn.c_str());
    }
    return false;
  }
  if (!device->friendly_name.empty()) {
    VEX_LOG(kLogStep, kTag, "DEVICE_ADDED [%s][%s]", device->friendly_name.c_str(),
            device->device_type.c_str());
  }
  device->is_valid = true;
  device->services_ready = false;

  // In all three or in none: an index without its entry would be followed into freed memory.
  Entries added(1, Entry{device, by_udn_.end()});
  const Entries::iterator entry = added.begin();
  entry->place = by_udn_.emplace(device->udn, entry);
  try {
    by_device_.emplace(device.get(), entry);
  } catch (...) {
    by_udn_.erase(entry->place);
    throw;
  }
  devices_.splice(devices_.end(), added);
  VEX_LOG(kLogStep, kTag, " the size of device list : %d", static_cast<int>(devices_.size()));
  return true;
}

bool DeviceList::Reserve(const boost::shared_ptr<Device>& device, std::size_t bytes) {
  return IsListed(device) && device->held.Grow(bytes);
}

boost::shared_ptr<Device> DeviceList::Erase(Entries::iterator entry) {
  boost::shared_ptr<Device> device = entry->device;
  const auto same = by_device_.equal_range(device.get());
  by_device_.erase(std::find_if(same.first, same.second,
                                [&](const auto& indexed) { return indexed.second == entry; }));
  by_udn_.erase(entry->place);
  devices_.erase(entry);
  return device;
}

void DeviceList::Remove(const boost::shared_ptr<Device>& device) {
  for (auto found = by_device_.find(device.get()); found != by_device_.end();
       found = by_device_.find(device.get())) {
    Erase(found->second);
  }
}

boost::shared_ptr<Device> DeviceList::RemoveByUdn(const std::string& udn) {
  // Among equal keys the lower bound is the one that came first.
  const auto found = by_udn_.lower_bound(udn);
  if (found == by_udn_.end() || found->first != udn) return boost::shared_ptr<Device>();
  return Erase(found->second);
}

boost::shared_ptr<Device> DeviceList::RemoveUnreadyByUdn(const std::string& udn) {
  for (auto found = by_udn_.lower_bound(udn); found != by_udn_.end() && found->first == udn;
       ++found) {
    if (!found->second->device->services_ready) return Erase(found->second);
  }
  return boost::shared_ptr<Device>();
}

DeviceList::Devices DeviceList::RemoveDeviceHierarchy(const boost::shared_ptr<Device>& device) {
  // Found before the first of them goes: with memory short, all of them stay.
  Devices leaving = WithEmbedded({device});
  for (const boost::shared_ptr<Device>& gone : leaving) Remove(gone);
  return leaving;
}

std::unique_ptr<DeviceList::Devices> DeviceList::RemoveAndGetDevicesByInterface(
    const std::string& name) {
  std::unique_ptr<Devices> removed(new Devices);
  for (const Entry& entry : devices_) {
    const std::string& interface_name = entry.device->interface_name;
    if (interface_name.empty() || interface_name == name) removed->push_back(entry.device);
  }
  for (const boost::shared_ptr<Device>& leaving : WithEmbedded(*removed)) Remove(leaving);
  return removed;
}

boost::shared_ptr<Device> DeviceList::IsDeviceAdded(const std::string& udn) const {
  const auto found = by_udn_.lower_bound(udn);
  if (found == by_udn_.end() || found->first != udn) return boost::shared_ptr<Device>();
  return found->second->device;
}

bool DeviceList::IsListed(const boost::shared_ptr<Device>& device) const {
  return by_device_.count(device.get()) != 0;
}

bool DeviceList::MarkReady(const boost::shared_ptr<Device>& device) {
  if (!IsListed(device) || device->services_ready) return false;
  device->services_ready = true;
  return true;
}

boost::shared_ptr<Device> DeviceList::FindReady(const std::string& udn) const {
  for (auto found = by_udn_.lower_bound(udn); found != by_udn_.end() && found->first == udn;
       ++found) {
    if (found->second->device->services_ready) return found->second->device;
  }
  return boost::shared_ptr<Device>();
}

boost::shared_ptr<Device> DeviceList::GetDeviceByUdn(const std::string& udn) const {
  boost::shared_ptr<Device> device = FindReady(udn);
  if (device) VEX_LOG(kLogStep, kTag, "device udn matched");
  return device;
}

boost::shared_ptr<Device> DeviceList::LockAndGetDeviceByUdn(const std::string& udn) {
  boost::lock_guard<boost::recursive_mutex> lock(device_list_mutex);
  return FindReady(udn);
}

std::unique_ptr<DeviceList::Devices> DeviceList::GetAllDevices() const {
  std::unique_ptr<Devices> all;
  if (devices_.empty()) return all;
  all.reset(new Devices);
  for (const Entry& entry : devices_) all->push_back(entry.device);
  return all;
}

// The stems must be equal here; the observers' and the accepted types' comparisons are other ones.
std::unique_ptr<DeviceList::Devices> DeviceList::GetDeviceListByType(
    const std::string& type) const {
  std::unique_ptr<Devices> matching(new Devices);
  const DeviceTypeParts wanted = SplitDeviceType(type);
  for (const Entry& entry : devices_) {
    if (!entry.device->services_ready) continue;
    if (type != kRootDevice) {
      const DeviceTypeParts parts = SplitDeviceType(entry.device->device_type);
      if (parts.stem != wanted.stem || !VersionAccepted(parts.version, wanted.version)) continue;
    }
    matching->push_back(entry.device);
  }
  return matching;
}

// KEPT: only the beginning of an entry counts, so a device of type "...:Foo:1" passes for an entry
// "...:FooBar:1". It costs a description; the observers' own comparison decides about events.
bool DeviceList::IsAcceptedDevice(const std::string& type) const {
  if (accepted_devices_.empty()) return true;
  const std::string stem = SplitDeviceType(type).stem;
  if (stem.empty()) return false;
  return std::any_of(
      accepted_devices_.begin(), accepted_devices_.end(),
      [&](const std::string& accepted) { return accepted.compare(0, stem.size(), stem) == 0; });
}

void DeviceList::AddAcceptedDevice(const std::string& type) {
  if (type.empty()) return;
  if (type == kRootDevice) {
    VEX_LOG(kLogStep, kTag, "it's root device");
    return;
  }
  const bool is_forum_type = type.compare(0, sizeof(kForumDeviceType) - 1, kForumDeviceType) == 0;
  if (!is_forum_type && !IsVendorType(type)) return;
  VEX_LOG(kLogStep, kTag, "accepted device_type:[%s]", type.c_str());
  // Registering the same type for years must not make the list longer.
  const auto end = accepted_devices_.end();
  if (std::find(accepted_devices_.begin(), end, type) == end) accepted_devices_.push_back(type);
}

void DeviceList::ResetDeviceListValidity(const std::string& type) {
  const std::map<std::string, int> streaming = StreamingAddresses();
  boost::lock_guard<boost::recursive_mutex> lock(device_list_mutex);
  for (const Entry& entry : devices_) {
    Device& device = *entry.device;
    if (!BelongsToSearch(device, type)) continue;
    if (device.services_ready && streaming.count(device.ip) == 0) device.is_valid = false;
  }
}

std::unique_ptr<DeviceList::Devices> DeviceList::RemoveAndGetInvalidDevicesByType(
    const std::string& type, int timeout, boost::unique_lock<boost::mutex>& lock,
    boost::condition_variable& condition, bool& stop,
    boost::unique_lock<boost::recursive_mutex>& delivery) {
  Addresses addresses = GetInvalidAddresses(type);
  if (addresses.empty()) {
    lock.unlock();
    return std::unique_ptr<Devices>();
  }
  const int result = ProbeInBatches(addresses, timeout, lock, condition, stop);
  lock.unlock();
  if (result != result::kOk) {
    VEX_LOG(kLogMajor, kTag, "IsReachable failed!!");
    return std::unique_ptr<Devices>(new Devices);
  }
  delivery.lock();
  return RemoveUnreachable(type, addresses);
}

DeviceList::Addresses DeviceList::GetInvalidAddresses(const std::string& type) {
  Addresses addresses;
  boost::lock_guard<boost::recursive_mutex> lock(device_list_mutex);
  for (const Entry& entry : devices_) {
    const Device& device = *entry.device;
    if (device.is_valid || !BelongsToSearch(device, type)) continue;
    boost::shared_ptr<network_layer::valid_address_info> info(
        new network_layer::valid_address_info);
    info->ip = device.ip;
    info->port = device.port;
    addresses[device.udn] = info;
  }
  return addresses;
}

std::unique_ptr<DeviceList::Devices> DeviceList::RemoveUnreachable(const std::string& type,
                                                                   const Addresses& addresses) {
  std::unique_ptr<Devices> removed(new Devices);
  boost::lock_guard<boost::recursive_mutex> lock(device_list_mutex);
  for (const Entry& entry : devices_) {
    const boost::shared_ptr<Device>& device = entry.device;
    // Whatever announced itself in the meantime is valid again.
    if (device->is_valid || !BelongsToSearch(*device, type)) continue;
    const auto probed = addresses.find(device->udn);
    if (probed == addresses.end()) {
      VEX_LOG(kLogMajor, kTag, "invalid device info not found!!");
    } else if (probed->second->valid) {
      device->is_valid = true;
      VEX_LOG(kLogStep, kTag, "Device is valid and busy in performing other activity!!");
    } else {
      VEX_LOG(kLogStep, kTag, "Invalid device found. adding to list!!");
      removed->push_back(device);
    }
  }
  // With memory short none has gone by now, so that none goes untold.
  for (const boost::shared_ptr<Device>& device : *removed) Remove(device);
  return removed;
}

}  // namespace cp_discovery
}  // namespace vex_upnp
