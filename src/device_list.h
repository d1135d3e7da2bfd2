#ifndef VEXUPNPCP_SRC_DEVICE_LIST_H_
#define VEXUPNPCP_SRC_DEVICE_LIST_H_

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <vexupnpcp/network_types.h>
#include <vexupnpcp/vexuncopyable.h>

#include "src/device.h"

namespace vex_upnp {
namespace cp_discovery {

// All known devices, root and embedded alike, in order of insertion, and the device types that were
// asked for. A device is known by its key, so one that is met on two interfaces is two entries.
//
// Operations expect the caller to hold device_list_mutex unless they say that they take it.
class DeviceList : private VEXUncopyable {
 public:
  using Devices = std::list<boost::shared_ptr<Device>>;
  using Addresses = std::map<std::string, boost::shared_ptr<network_layer::valid_address_info>>;

  // Made at the first use. Whoever holds it may go on using it after Terminate.
  static boost::shared_ptr<DeviceList> GetInstance();
  static void Terminate();
  ~DeviceList() override = default;

  // Under it nothing is called but this class, and the list of requests in flight. Recursive, so
  // that several operations make one step.
  boost::recursive_mutex device_list_mutex;

  // Takes the mutex itself.
  void ClearDeviceList();

  // False when there is no room for one more device. Whether the key is listed already is the
  // caller's to look up.
  bool Add(boost::shared_ptr<Device>& device);
  // Room for `bytes` more that a listed device is to hold, given back when the device is gone.
  bool Reserve(const boost::shared_ptr<Device>& device, std::size_t bytes);
  void Remove(const boost::shared_ptr<Device>& device);
  // Removes the first entry with this key and gives it, or null, to be dropped without the mutex.
  boost::shared_ptr<Device> RemoveByUdn(const std::string& udn);
  // The same for the first one that is not ready.
  boost::shared_ptr<Device> RemoveUnreadyByUdn(const std::string& udn);
  // Takes out the device and all that are embedded in it, to any depth, and gives them, parents
  // first, to be dropped without the mutex. When it throws, all of them stay.
  Devices RemoveDeviceHierarchy(const boost::shared_ptr<Device>& device);
  // Takes out what was met on the interface, and whatever was met on none. Never null.
  std::unique_ptr<Devices> RemoveAndGetDevicesByInterface(const std::string& name);

  // Ready or not; null when absent.
  boost::shared_ptr<Device> IsDeviceAdded(const std::string& udn) const;
  bool IsListed(const boost::shared_ptr<Device>& device) const;
  // Makes a listed device ready. False when it has left the list or was ready before.
  bool MarkReady(const boost::shared_ptr<Device>& device);
  // Ready devices only.
  boost::shared_ptr<Device> GetDeviceByUdn(const std::string& udn) const;
  // Takes the mutex itself.
  boost::shared_ptr<Device> LockAndGetDeviceByUdn(const std::string& udn);
  // Null when there are none.
  std::unique_ptr<Devices> GetAllDevices() const;
  // The ready devices of this type and version, or a newer one; never null.
  std::unique_ptr<Devices> GetDeviceListByType(const std::string& type) const;

  bool IsAcceptedDevice(const std::string& type) const;
  void AddAcceptedDevice(const std::string& type);

  // Before a search: what is ready and not streaming has to show itself anew. Takes the mutex
  // itself, since the streaming sessions are asked for first.
  void ResetDeviceListValidity(const std::string& type);

  // After a search: probes the devices of the type that did not show themselves, for at most
  // `timeout` seconds a batch, and takes out those that do not answer. Null when all had shown
  // themselves. `lock`, held by the caller, guards `stop` and is given up after the probe;
  // `delivery` is locked before anything is removed and stays so for the caller, so that no later
  // event of the same device overtakes its removal. Takes device_list_mutex itself.
  std::unique_ptr<Devices> RemoveAndGetInvalidDevicesByType(
      const std::string& type, int timeout, boost::unique_lock<boost::mutex>& lock,
      boost::condition_variable& condition, bool& stop,
      boost::unique_lock<boost::recursive_mutex>& delivery);

 private:
  struct Entry;
  using Entries = std::list<Entry>;
  using ByUdn = std::multimap<std::string, Entries::iterator>;
  struct Entry {
    boost::shared_ptr<Device> device;
    ByUdn::iterator place;
  };

  DeviceList() = default;

  boost::shared_ptr<Device> FindReady(const std::string& udn) const;
  boost::shared_ptr<Device> Erase(Entries::iterator entry);
  Addresses GetInvalidAddresses(const std::string& type);
  std::unique_ptr<Devices> RemoveUnreachable(const std::string& type, const Addresses& addresses);

  // All guarded by device_list_mutex.
  Entries devices_;
  // Beside the list, so that a look-up does not depend on the number of devices. Equal keys keep
  // their order of insertion.
  ByUdn by_udn_;
  std::unordered_multimap<const Device*, Entries::iterator> by_device_;
  std::list<std::string> accepted_devices_;

  // Never destroyed: a thread of the library may still look while the process exits.
  static boost::shared_ptr<DeviceList>& instance_;
  static boost::mutex& singleton_mutex_;
};

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_DEVICE_LIST_H_
