#ifndef VEXUPNPCP_SRC_OBSERVER_H_
#define VEXUPNPCP_SRC_OBSERVER_H_

#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/cp_discovery.h>

#include "base/delivery_list.h"
#include "src/device.h"

namespace vex_upnp {
namespace cp_discovery {

// A registered party. Type and agent are set before it is registered and not changed after.
class Observer {
 public:
  Observer() = default;
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;
  virtual ~Observer() = default;

  // One event of a device, with the observers' delivery mutex held.
  virtual void Update(DeviceStatus_ status, boost::shared_ptr<Device>& device);

  void SetId(int id) { id_ = id; }
  int GetId() const { return id_; }
  void SetDeviceType(const std::string& type) { device_type_ = type; }
  void GetDeviceType(std::string& type) const { type = device_type_; }
  void SetUserAgent(const std::string& agent) { user_agent_ = agent; }
  void GetUserAgent(std::string& agent) const { agent = user_agent_; }

  // Whether it is the same object.
  bool operator==(const Observer& other) const { return this == &other; }

 private:
  int id_ = 0;
  std::string device_type_ = "ssdp:all";
  std::string user_agent_;
};

// An observer that hands its events on to a plain function.
class ControlPoint : public Observer {
 public:
  explicit ControlPoint(DeviceCallback callback) : callback_(callback) {}

  void Update(DeviceStatus_ status, boost::shared_ptr<Device>& device) override;

 private:
  const DeviceCallback callback_;
};

// Whoever tells observers.
class Observable {
 public:
  Observable() = default;
  Observable(const Observable&) = delete;
  Observable& operator=(const Observable&) = delete;

 protected:
  ~Observable() = default;

  // In order of registration.
  DeliveryList<Observer> observers_;
};

// The part of a device's record that leaves discovery in both events and lists; the display name
// stays empty.
DeviceInfo MakeDeviceInfo(const Device& device);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_OBSERVER_H_
