#ifndef VEXUPNPCP_GENERIC_CP_H_
#define VEXUPNPCP_GENERIC_CP_H_

#include <vexupnpcp/errorcodes.h>
#include <vexupnpcp/export.h>

/// The control point as plain functions and records, for hosts in C and C++. What holds for all of
/// them:
///
/// 1. Start and stop. The framework comes first (framework_controller_cp.h). Then, if wanted,
///    `GenericCPSetUserAgent`, then `InitializeGenericCP`, `RegisterCP` once per interest, and
///    everything else. The end is the mirror: `UnRegisterCP`, `TerminateGenericCP`, and the
///    framework's stop. A wrong order does no harm; the code tells it. Release the lists that you
///    hold before `TerminateGenericCP`: after it the Free functions free nothing.
/// 2. Strings and lists. Texts are UTF-8 and NUL-terminated. A list is linked through `next` and
///    ends in null; an empty list is a null pointer. In records that the library makes no string is
///    null: an absent text is an empty one.
/// 3. Memory. What you pass in stays yours and is read during the call only. What a function gives
///    you is yours: `GetDeviceList` goes back by `FreeDeviceList`, `GetDetailedDeviceInfo` by
///    `FreeDetailedDeviceInfo`, a single text by `free`. Outputs are written on success only.
/// 4. What a callback receives belongs to the library and is valid during the call: copy what you
///    keep, free nothing.
/// 5. Threads. The functions may be called from any thread of the host. Callbacks come on the
///    library's threads:
///      - `event_callback` on one that receives requests. It may call every function but
///        `TerminateGenericCP`, its own `UnSubscribeService` included. Events of one subscription
///        come in order, events of all subscriptions one at a time: do not block.
///      - `action_callback` on one that receives answers, or on the timer's when the time is up. It
///        runs with the control point's lock held, so call none of these functions from it; hand
///        the result to a thread of your own.
///      - `device_callback` on whichever thread changes the list of devices, which may be your own
///        in a call of yours. It may call every function but `TerminateGenericCP`; other device
///        events wait for it.
///    Never call `TerminateGenericCP`, nor what starts or stops the framework, from a callback:
///    they wait for it to end.
/// 6. No call after the end. When `UnRegisterCP` has returned, no callback of that control point
///    runs or will run, and when `UnSubscribeService` has returned 0, no event of that subscription
///    does. They wait for callbacks that run on other threads, with one exception: from inside an
///    `event_callback`, `UnRegisterCP` does not wait for a `device_callback` that runs beside it.
///    From inside a `device_callback` they do wait for a running `event_callback` (`UnRegisterCP`
///    when it has a subscription to end), which therefore must not wait for that thread. When
///    `TerminateGenericCP` has returned, no callback at all runs or will run.
/// 7. Codes are those of errorcodes.h, CP_ERR_NONE (0) for success. Tests come in this order: not
///    initialised, null arguments, unknown handle; the first that fails decides. What a comment
///    names "forwarded" is a code of the layers below (result_codes.h), 1 for a plain failure.
///    Every function may give CP_ERR_OUT_OF_MEMORY, and CP_ERR_OPERATION_FAILED after an exception
///    that nobody expected. Nothing is thrown. The same codes go to the callbacks.
/// 8. Devices. A device is named by its UDN with "+" and the local interface behind it, so a device
///    that is reached over two interfaces is two devices. A control point may use devices of any
///    type, not only of those that it registered for.

#ifdef __cplusplus
extern "C" {
#endif

/// A device type that a control point wants to hear of; a list.
typedef struct CPDeviceTypeInfo {
  /// "urn:schemas-upnp-org:device:MediaServer:1" and the like (UPnP Device Architecture 1.0), which
  /// includes the later versions, or "upnp:rootdevice" for all devices. Null is passed over.
  char* device_type;
  struct CPDeviceTypeInfo* next;
} CPDeviceTypeInfo;

/// One argument of an action or one variable of an event; a list.
typedef struct CPArgument {
  /// Not null in a list that you pass in.
  char* name;
  /// Not null in a list that you pass in. It goes into the request as it stands: escape it for XML.
  char* value;
  struct CPArgument* next;
} CPArgument;

/// One icon of a device's description; a list. Numbers are texts, as the description has them.
typedef struct CPDeviceIcon {
  char* mimetype;
  /// In pixels, as are width and height; depth is in bits.
  char* width;
  char* height;
  char* depth;
  /// Absolute in CPDetailedDeviceInfo, elsewhere as in the description.
  char* url;
  struct CPDeviceIcon* next;
} CPDeviceIcon;

/// One service of a device's description; a list. The URLs are as in the description.
typedef struct CPDeviceServiceInfo {
  /// Always empty.
  char* service_key;
  /// Always empty.
  char* service_owner;
  char* service_type;
  char* service_id;
  char* scpd_url;
  char* control_url;
  char* event_sub_url;
  struct CPDeviceServiceInfo* next;
} CPDeviceServiceInfo;

/// A device in short; a list.
typedef struct CPDeviceInfo {
  char* friendly_name;
  /// The device's name in all functions.
  char* udn;
  /// The name to show; empty in device_callback, filled by GetDeviceList.
  char* display_name;
  char* device_type;
  /// The local interface over which the device is reached.
  char* interface_name;
  CPDeviceIcon* icons;
  struct CPDeviceInfo* next;
} CPDeviceInfo;

/// All that is known of one device.
typedef struct CPDetailedDeviceInfo {
  char* friendly_name;
  char* udn;
  char* display_name;
  char* device_type;
  CPDeviceIcon* icons;
  /// The host in the description's location: an address, or a name when the device gave one.
  char* device_ip;
  /// This host's address on the way to the device.
  char* local_ip;
  char* interface_name;
  char* url_base;
  int device_port;
  /// Where the description came from.
  char* location;
  char* serial_number;
  char* manufacturer;
  char* model_name;
  char* model_number;
  /// The description's location up to, and without, its last "/".
  char* description_path;
  /// The description as it was received.
  char* description_xml;
  CPDeviceServiceInfo* services;
  /// 1: the device is this machine; 2: it lies in the subnet of a selected interface; 3: it lies
  /// elsewhere; 0: not known.
  int device_domain;
} CPDetailedDeviceInfo;

/// The callbacks of one control point. Each may be null. Rules 4 to 6 above hold for all of them.
typedef struct ControlPointCalbacks {
  /// A subscribed service sent an event.
  ///
  /// @param device_udn  The device. Which of its services it was, the names of the variables tell.
  /// @param code        CP_ERR_NONE; CP_ERR_EVENT_PARSE or CP_ERR_OUT_OF_MEMORY, without variables.
  void (*event_callback)(const char* device_udn, errorcodes code, CPArgument* variables);
  /// The end of an action, once for each that SendAction accepted and nobody cancelled.
  ///
  /// @param output             The output arguments, with CP_ERR_NONE only.
  /// @param code               CP_ERR_NONE; CP_ERR_ACTION_FAILED when the device reported an error,
  ///                           its answer could not be read or no answer came; it also stands for
  ///                           the success of an action that has no output arguments, which comes
  ///                           without a list and without a description. CP_ERR_OUT_OF_MEMORY.
  /// @param error_description  The device's words ("Action Failed" when it sent a code without
  ///                           words, "Action Timeout" when no answer came), or null.
  void (*action_callback)(int action_id, errorcodes code, CPArgument* output,
                          const char* error_description);
  /// A device of a registered type came or went. A control point whose types match it twice is told
  /// twice. Devices that are known already when a control point registers are not told anew; see
  /// GetDeviceList.
  ///
  /// @param event   1: it is ready for use; 2: it is gone. A 2 without a 1 before it comes for a
  ///                device that said byebye before it was ready.
  /// @param device  Never null.
  void (*device_callback)(int event, CPDeviceInfo* device);
  /// Never called.
  void (*reserved_callback)(void);
} ControlPointCalbacks;

/// Starts the control point: discovery, actions and events. All devices are searched for once.
///
/// Needed: InitFrameworkCore.
/// @return 0; CP_ERR_INIT_FAILED without the framework, when a profile runs already, and when
///         discovery could not be started; CP_ERR_ALREADY_INITIALIZED when only the profile below
///         had been ended meanwhile; CP_ERR_OUT_OF_MEMORY.
/// When discovery itself could not be started, TerminateUPnP makes room for another try.
VEX_EXPORT int InitializeGenericCP(void);

/// Ends the control point and every control point still registered: open actions are cancelled and
/// subscriptions ended.
///
/// Waits for callbacks that run; not from inside one.
/// @return 0; CP_ERR_NOT_INITIALIZED.
VEX_EXPORT int TerminateGenericCP(void);

/// Sets the USER-AGENT of actions and subscriptions, and of device descriptions that are asked for
/// because of a message about upnp:rootdevice; the latter carry what was set before
/// InitializeGenericCP. All other description requests carry SetDefaultUserAgent's
/// (framework_controller_cp.h).
///
/// Works at any time.
/// @param agent  Null is ignored with a log line; empty stands for the default agent.
VEX_EXPORT void GenericCPSetUserAgent(const char* agent);

/// Reads what GenericCPSetUserAgent stored.
///
/// @return A text to be released with `free`; null when none is set, and without memory.
VEX_EXPORT char* GenericCPGetUserAgent(void);

/// Registers a control point of the host. No search is started for its types; see RescanNetwork.
/// Devices that are ready already are not told; GetDeviceList gives them.
///
/// @param types      What device_callback tells of, and what RescanNetwork looks for. Not null.
/// @param callbacks  Copied. May be null: nothing is told then, and actions cannot be sent.
/// @param handle     Receives the handle: 1, 3, 5 and so on, none twice. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS; CP_ERR_FAILURE without memory.
VEX_EXPORT int RegisterCP(const CPDeviceTypeInfo* types, ControlPointCalbacks* callbacks,
                          int* handle);

/// Takes a control point back: open actions are cancelled, without a callback, and subscriptions
/// ended.
///
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS for an unknown handle.
VEX_EXPORT int UnRegisterCP(int handle);

/// Lists the devices that are ready.
///
/// @param device_type  As in CPDeviceTypeInfo. Not null.
/// @param list         Receives the list, for FreeDeviceList. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS; CP_ERR_FAILURE when there is no such
///         device.
VEX_EXPORT int GetDeviceList(int handle, const char* device_type, CPDeviceInfo** list);

/// Releases a list from GetDeviceList.
///
/// @return 0; CP_ERR_NOT_INITIALIZED, with nothing freed; CP_ERR_INVALID_PARAMS for null.
VEX_EXPORT int FreeDeviceList(CPDeviceInfo* list);

/// Gives all that is known of one device.
///
/// @param udn   From a CPDeviceInfo. Not null.
/// @param info  Receives the record, for FreeDetailedDeviceInfo. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS; CP_ERR_FAILURE for an unknown device.
VEX_EXPORT int GetDetailedDeviceInfo(int handle, const char* udn, CPDetailedDeviceInfo** info);

/// Releases a record from GetDetailedDeviceInfo.
///
/// @param info  Null is no fault.
/// @return 0; CP_ERR_NOT_INITIALIZED, with nothing freed.
VEX_EXPORT int FreeDetailedDeviceInfo(CPDetailedDeviceInfo* info);

/// Gives a service's description document (UPnP Device Architecture 1.0, SCPD).
///
/// @param udn           From a CPDeviceInfo. Not null.
/// @param service_type  The type or a part of it; the first service that has it counts. Not null.
/// @param description   Receives the text, for `free`. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS; CP_ERR_FAILURE for an unknown device
///         and an unknown service.
VEX_EXPORT int GetServiceDescription(int handle, const char* udn, const char* service_type,
                                     char** description);

/// Searches the network. What is found comes through device_callback; devices that neither answer
/// nor accept a connection go, some five seconds later.
///
/// @param device_type  What to look for; null or empty stands for each type that the control point
///                     registered.
/// @return 0, also when the search could not be sent; CP_ERR_NOT_INITIALIZED; CP_ERR_FAILURE for an
///         unknown handle.
VEX_EXPORT int RescanNetwork(int handle, const char* device_type);

/// Sends one SOAP action to a service; the answer comes once through action_callback.
///
/// @param udn           From a CPDeviceInfo. Not null.
/// @param service_type  The type or a part of it, in any case: the first service that has it
///                      counts. Not null.
/// @param action_name   Not null.
/// @param arguments     The input arguments; may be null. Both strings of a node must be set.
/// @param action_id     Receives the id that the callback will carry. Not null. The callback may
///                      come before the call has returned.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS; CP_ERR_NO_CALLBACK;
///         CP_ERR_OPERATION_FAILED when the device is unknown or the action could not be sent.
/// No answer within 30000 ms ends in CP_ERR_ACTION_FAILED with "Action Timeout".
VEX_EXPORT int SendAction(int handle, const char* udn, const char* service_type,
                          const char* action_name, CPArgument* arguments, int* action_id);

/// Gives an action up: its callback does not come, unless it is on its way already.
///
/// @param handle     Of the control point that sent it; not checked: the action ends with any
///                   handle.
/// @param action_id  From SendAction; one that has ended is no fault.
VEX_EXPORT void CancelAction(int handle, int action_id);

/// Subscribes all services of a device, as SubscribeService does. The first failure ends the call,
/// be it a service without events; what was subscribed by then stays so.
///
/// @param udn  From a CPDeviceInfo. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS, also for an unknown device; the
///         code of SubscribeService.
VEX_EXPORT int SubscribeDevice(int handle, const char* udn);

/// Ends the subscriptions of all services of a device; what fails is passed over.
///
/// @param udn  From a CPDeviceInfo. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS, also for an unknown device.
VEX_EXPORT int UnSubscribeDevice(int handle, const char* udn);

/// Subscribes one service; its events come through event_callback, the first with the values as
/// they are.
///
/// The subscription is renewed until it is ended. Two things end it without a word to the host: its
/// third failed answer, counted over its whole life, renewals included, and a renewal that cannot
/// be sent, after which the device lets it lapse. Events stay out then, and the pair goes on
/// counting as subscribed. A host that has cause to doubt, such as a device that came back, calls
/// UnSubscribeService and subscribes anew; if the first gives a code, the pair is free again only
/// for another control point: RegisterCP, SubscribeService with its handle, UnRegisterCP of the
/// old one.
///
/// Needed: a TCP server on the interface that faces the device (ConfigureServers).
/// @param udn           From a CPDeviceInfo. Not null.
/// @param service_type  The type or a part of it; the first service that has it counts. Not null.
/// @return 0 when the request is on its way; the device may refuse it still, which is only logged.
///         CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS, also for an unknown device;
///         CP_ERR_OPERATION_FAILED for an unknown service and without such a server;
///         CP_ERR_ALREADY_SUBSCRIBED for the same pair of texts, also when the device has refused
///         it; result::kBadInput (3001) for a service without events, whose eventSubURL is empty;
///         else forwarded from the sending.
VEX_EXPORT int SubscribeService(int handle, const char* udn, const char* service_type);

/// Ends a subscription.
///
/// Waits for an event that is being delivered on another thread.
/// @param udn           As given to SubscribeService, letter for letter. Not null.
/// @param service_type  As given to SubscribeService, letter for letter. Not null.
/// @return 0; CP_ERR_NOT_INITIALIZED; CP_ERR_INVALID_PARAMS; CP_ERR_NOT_SUBSCRIBED; else forwarded,
///         when the device could not be told or had refused or not yet answered the subscription.
///         After such a code no event comes any more, yet the pair counts as subscribed until
///         UnRegisterCP.
VEX_EXPORT int UnSubscribeService(int handle, const char* udn, const char* service_type);

#ifdef __cplusplus
}
#endif

#endif /* VEXUPNPCP_GENERIC_CP_H_ */
