#ifndef VEXUPNPCP_CP_DISCOVERY_H_
#define VEXUPNPCP_CP_DISCOVERY_H_

#include <list>
#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace cp_discovery {

// Discovery of UPnP devices (UPnP Device Architecture 1.0/1.1): search and announcements by SSDP,
// device and service descriptions by HTTP, and a live list of the devices found.
//
// What holds for all of it:
// - A device is known by its key, in the field `udn`: the UDN of its description, "+", and the name
//   of the interface on which it is met ("localhost" for a device of this machine that answers on
//   the loopback address). A device that is met on two interfaces is two devices.
// - Root devices and the devices embedded in them are equals here: each has its own record, its own
//   events and its own end.
// - A device can be looked up and is told as added when the descriptions of all its services are
//   there; before, none of these functions finds it. One whose service descriptions cannot be had
//   goes without an event.
// - Devices do not expire by age. One goes when it says byebye, when it neither answers a search
//   nor lets itself be connected to, and with its interface.
// - Results are those of result_codes.h: 0 (kOk) for success, kOutOfMemory when memory is short and
//   1 (kFailure) otherwise, unless told. Nothing is thrown. Outputs are written on success only,
//   unless told; lists that are appended to may have grown when memory gives out.
// - The functions may be called from any thread of the host, and from inside a device callback,
//   except where told. They take their texts by copy.

/// What an event says about a device.
enum DeviceEventType : int {
  /// The device is ready: found, and described with all its services.
  DEVICE_ADDED = 1,
  /// The device has left the list.
  DEVICE_REMOVED = 2
};
/// The same under the name that the registry's inner side uses.
typedef DeviceEventType DeviceStatus_;

/// One icon of a device (`icon` in a device description).
struct DeviceIconInfo {
  std::string mimetype;
  /// As it stands in the description; absolute in a DetailedDeviceInfo.
  std::string url;
  /// Pixels, as text.
  std::string width;
  std::string height;
  /// Bits a pixel, as text.
  std::string depth;
};

/// One service of a device (`service` in a device description). URLs are as they stand there, most
/// often relative; StringUtils::GetAbsoluteUri makes them absolute.
struct DeviceServiceInfo {
  /// Always empty.
  std::string service_key;
  /// Always empty.
  std::string service_owner;
  std::string service_type;
  std::string service_id;
  std::string scpd_url;
  std::string control_url;
  std::string event_sub_url;
};

/// The short record of a device: what events and lists carry.
struct DeviceInfo {
  std::string friendly_name;
  /// The key, see above.
  std::string udn;
  /// Empty in events; GetDeviceList fills it.
  std::string display_name;
  /// With its version behind the last ":".
  std::string device_type;
  std::string interface_name;
  std::list<DeviceIconInfo> icons;
};

/// All that is known of a device.
struct DetailedDeviceInfo {
  std::string friendly_name;
  /// The key, see above.
  std::string udn;
  /// Where the device's description came from, dotted decimal, or a host's name when LOCATION has
  /// one.
  std::string device_ip;
  /// Our own address that faces the device.
  std::string local_ip;
  std::string interface_name;
  /// The description's URLBase element; most devices have none.
  std::string url_base;
  int device_port = 0;
  /// The URL of the description.
  std::string location;
  std::string serial_number;
  std::string manufacturer;
  std::string model_name;
  std::string model_number;
  std::string device_type;
  /// The description's URL up to, and without, its last "/".
  std::string description_path;
  /// The whole description; an embedded device has that of its root.
  std::string description_xml;
  std::string display_name;
  /// With absolute URLs; icons without a usable URL are left out.
  std::list<DeviceIconInfo> icons;
  std::list<DeviceServiceInfo> services;
  /// 1 the device is this machine, 2 it is on a subnet of ours, 3 it is elsewhere, 0 its address is
  /// not known.
  int device_domain = 0;
  std::string model_description;
};

/// Receives the events of the devices that a registration asked for.
///
/// @param id      The handle of the registration.
/// @param event   DEVICE_ADDED or DEVICE_REMOVED. For one device they come in the order in which
///                they happened. A device that says byebye before it was ready is told as removed
///                without having been told as added.
/// @param device  Valid during the call only; owned by the library.
/// Comes on whichever thread changes the list of devices: a network callback thread, a worker
/// thread of the library, or the interface watcher's. Calls come one at a time, over all
/// registrations. It may call any function of this header but Terminate; it must not wait for
/// another thread that calls one, since removals and registrations wait for it.
typedef void (*DeviceCallback)(int id, DeviceEventType event, DeviceInfo* device);

/// Registers discovery with the network layer and takes a reference on streaming.
///
/// The network layer and the timer service must be running. Called by the framework controller for
/// a control point profile; a host has no need to.
/// @return kOk, or kFailure when a registration was refused; then nothing stays registered.
VEX_EXPORT int Initialize();

/// Ends discovery: no device callback runs or comes any more once it has returned, searches and
/// descriptions in flight are cancelled, the list of devices is empty and all registrations are
/// gone.
///
/// @return Always kOk. Waits for callbacks that are running, so it must not be called from one.
VEX_EXPORT int Terminate();

/// Registers for the devices of a type and sends a search for them.
///
/// @param type        A device type with version, such as
///                    "urn:schemas-upnp-org:device:MediaServer:1", which also stands for newer
///                    versions; or "upnp:rootdevice" for every device. Not empty. "ssdp:all" is
///                    searched for but gets no events.
/// @param user_agent  For the description requests to devices that answer with exactly this type;
///                    empty for the default.
/// @param callback    Receives the events. May be null.
/// @param handle      Receives the handle for UnRegisterCP, from 1. May be null. The first events
///                    may come before it is written.
/// @return kOk; kFailure for an empty type. A search that cannot be sent is no failure.
/// Registered concrete types also narrow which descriptions are kept at all, for the rest of the
/// run: devices of other types are not listed from then on.
VEX_EXPORT int RegisterCP(const std::string& type, const std::string& user_agent,
                          DeviceCallback callback, int* handle);

/// Ends a registration. Once it has returned, its callback does not run on another thread and is
/// not called again; from inside the callback itself it does not wait.
///
/// @param handle  From RegisterCP; an unknown one is ignored.
/// @return Always kOk.
VEX_EXPORT int UnRegisterCP(const int& handle);

/// Sends a search, and some seconds later takes out the devices of the type that neither answered
/// it nor accept a TCP connection; these are told as removed. Devices with a running streaming
/// session are left alone.
///
/// @param type  A device type, "ssdp:all" or "upnp:rootdevice". While a search for the same type or
///              for one of the last two is waiting for its check, nothing is sent. The last two,
///              taken together, are asked for at most once in 120 s, unless an interface has come
///              or has another address since.
VEX_EXPORT void Rescan(const std::string& type);

/// Rescan for the type of each registration, save "upnp:rootdevice" and "ssdp:all".
VEX_EXPORT void RescanForRegisteredCP();

/// Sets how long devices that did not answer a search are given to accept a connection.
/// @param seconds  3 at start.
VEX_EXPORT void SetRescanConnectTimeout(int seconds);

/// Sets the USER-AGENT of description requests, save those that have RegisterCP's.
/// @param agent  Empty at start; then most device descriptions are asked for under a built-in name
///               and service descriptions with an empty header. The header is empty too when the
///               announcement's NT is a uuid or is not there, when a search answer has no ST, and
///               when nobody is registered.
VEX_EXPORT void SetDefaultUserAgent(const std::string& agent);

/// Gives what SetDefaultUserAgent stored.
/// @param agent  Always written.
VEX_EXPORT void GetDefaultUserAgent(std::string& agent);

/// Does RescanForRegisteredCP now and every 60 s, until DisableAutoRescanFeature. Off at start; a
/// second call does nothing.
/// @return Always kOk.
VEX_EXPORT int EnableAutoRescanFeature();

/// Ends what EnableAutoRescanFeature began.
/// @return Always kOk. Waits for a search that is being sent on the timer thread.
VEX_EXPORT int DisableAutoRescanFeature();

/// Lists the ready devices of a type.
///
/// @param type  As for RegisterCP; "ssdp:all" finds nothing.
/// @param list  The records are appended to it, in the order in which the devices were found. Not
///              null; owned by the caller.
/// @return kOk; kFailure for an empty type, a null list, and when there is no such device.
VEX_EXPORT int GetDeviceList(const std::string& type, std::list<DeviceInfo>* list);

/// Gives all that is known of a ready device.
///
/// @param udn   The device's key.
/// @param info  Not null; owned by the caller. Its lists are appended to.
/// @return kOk; kFailure for an empty key, a null record or an unknown device.
VEX_EXPORT int GetDeviceDetailInfo(const std::string& udn, DetailedDeviceInfo* info);

/// Gives the device description of a ready device.
///
/// @param udn  The device's key.
/// @param xml  Receives the document as it came, save for white space in front of it.
/// @return kOk; kFailure for an empty key or an unknown device.
VEX_EXPORT int GetDeviceDescription(const std::string& udn, std::string& xml);

/// Gives the description of a ready device's service.
///
/// @param udn           The device's key.
/// @param service_type  A part of the type will do: the first service whose type holds it is taken.
/// @param xml           Receives the document as it came.
/// @return kOk; kFailure for an empty argument, an unknown device or service.
VEX_EXPORT int GetServiceDescription(const std::string& udn, const std::string& service_type,
                                     std::string& xml);

/// Gives the vendor capability of a ready device: the value of the first element of its description
/// whose name begins with "tmk:ProductCap".
///
/// @param udn  The device's key. An embedded device has none.
/// @return kOk; kFailure for an empty key, an unknown device or one without the element.
VEX_EXPORT int GetProductCap(const std::string& udn, std::string& value);

/// Says how far away an address is.
///
/// @param ip      Dotted decimal.
/// @param domain  Receives the value of DetailedDeviceInfo::device_domain; 0 for an empty `ip`.
/// @return Always kOk.
VEX_EXPORT int getDeviceDomain(const std::string& ip, int& domain);

/// Gives the address of the first active interface on whose subnet an address lies.
///
/// @param ip  Dotted decimal.
/// @return kOk, or kFailure when it is on none.
VEX_EXPORT int getDeviceInterface(const std::string& ip, std::string& local_ip);

}  // namespace cp_discovery
}  // namespace vex_upnp

#endif  // VEXUPNPCP_CP_DISCOVERY_H_
