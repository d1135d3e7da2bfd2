#ifndef VEXUPNPCP_CP_UTILS_H_
#define VEXUPNPCP_CP_UTILS_H_

#include <list>
#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/xmlparser.h>

// SOAP and event bodies, DIDL-Lite metadata and `protocolInfo` values (UPnP Device Architecture
// 1.0, UPnP ContentDirectory and ConnectionManager).
//
// 1. The functions hold no state: any thread may call any of them, also from inside a callback.
// 2. 0 is success and 1 failure, except for the two ParseProtocolInfo, where 1 is success.
// 3. A function that fails leaves its outputs as far as they were filled by then. Nothing throws;
//    shortness of memory is a failure.

namespace vex_upnp {
namespace cp_utils {

/// One argument of an action or one variable of an event. Lists of it are in document order.
struct CPUtilsArgument {
  std::string name;
  std::string value;
};

/// Writes the envelope of an action call.
///
/// @param service_type  Whole type of the service, such as
///                      `urn:schemas-upnp-org:service:AVTransport:1`.
/// @param args  An argument without a name is left out; values go in as they stand, escaped by the
///              caller (XmlEscapeValue).
/// @param body  Receives the text.
/// @return 0; 1 only when memory is short.
VEX_EXPORT int GenerateSoapRequestBody(const std::string& action, const std::string& service_type,
                                       std::list<CPUtilsArgument>& args, std::string& body);

/// Cuts out what stands inside the SOAP body and puts an XML declaration in front of it. The
/// envelope's prefix must be `s` or `SOAP-ENV`.
///
/// @param xml  Receives a document for the functions below; written on success only.
/// @return 0; 1 when there is no body or nothing in it.
VEX_EXPORT int GetXMLFromSoap(const std::string& soap, std::string& xml);

/// Reads the arguments of an action response.
///
/// @param xml   From GetXMLFromSoap.
/// @param args  They are appended.
/// @return 0; 1 when the document is malformed or the response has no argument.
VEX_EXPORT int GetOutputArglist(const std::string& xml, std::list<CPUtilsArgument>& args);

/// Flattens a document from a node on, in document order: each element with its name, and as value
/// its attribute `val` or else its text.
///
/// @param node    From the parser's cursor; freed here. Null gives 1.
/// @param parser  The cursor's parser, by value. The document is destroyed on every path: the
///                caller neither uses nor destroys its own record afterwards, which must live until
///                the call returns.
/// @param args    The elements are appended.
/// @return 0 or 1.
VEX_EXPORT int MakeArgumentList(utils::NodeXml* node, utils::XmlParser parser,
                                std::list<CPUtilsArgument>& args);

/// Reads the variables of an event body (GENA property set): the first child of each `property`,
/// with its attribute `val` or else its text.
///
/// @param vars  They are appended.
/// @return 0; 1 when the document is malformed or has no `property`.
VEX_EXPORT int ParseEventNotification(const std::string& xml, std::list<CPUtilsArgument>& vars);

/// Reads the error code and text of a SOAP fault.
///
/// @param xml          From GetXMLFromSoap.
/// @param code         Receives the code; untouched when there is none or when it is no number.
/// @param description  Receives the text.
/// @return 0 when a description that is not empty was found, else 1.
VEX_EXPORT int GetErrCodeDescription(const std::string& xml, int& code,
                                     boost::shared_ptr<std::string>& description);

/// The walk behind GetErrCodeDescription, from a node down: through first children, else on to the
/// next sibling, never back up. Elements count whose names contain "errorCode" and
/// "errorDescription", in any case.
///
/// @param node  From the parser's cursor; freed here and null afterwards.
VEX_EXPORT void _Extract_ErrorDescription(utils::XmlParser& parser, utils::NodeXml*& node,
                                          int& code, boost::shared_ptr<std::string>& description);

/// Finds the action that a response answers: `Play` for an element `u:PlayResponse`.
///
/// @return 0; 1 when the text is no action response of prefix `u` or `m`.
VEX_EXPORT int GetActionName(const std::string& xml, std::string& action);

/// Shortens the type of a service: `AVTransport` from `urn:schemas-upnp-org:service:AVTransport:1`.
/// A text that has `control-1-0` in it gives `control-1-0`.
///
/// @return 0; 1 when the text has no such part.
VEX_EXPORT int GetServiceType(const std::string& urn, std::string& type);

/// Finds out where an action of a listed device goes to.
///
/// @param udn           Key of the device.
/// @param service_type  A part of the type of the wanted service, in any case; becomes the whole
///                      type of the first service that has it, and stays when none has.
/// @param host          Receives the HOST header line without its line end.
/// @param control_uri   Receives the absolute control URL.
/// @return 0; 1 when the device is not listed or no URL can be formed.
/// Takes the lock of the device list.
VEX_EXPORT int GetHostAndControlUri(const std::string& udn, std::string& service_type,
                                    std::string& host, std::string& control_uri);

/// Cuts the value of a DIDL-Lite property to the length that the property allows, as plain bytes: a
/// reference or a multi-byte character may be cut in two, see ResizeEscapedString.
///
/// @param tag  Exact name of the property, such as `dc:title`.
/// @return 0; 1 for an empty or unknown name, with the value as it was.
VEX_EXPORT int ValidateDIDLProperty(const std::string& tag, std::string& value);

/// Escapes a text repeatedly, for metadata inside metadata: with two passes "&" gives
/// "&amp;amp;". Ends early at a text in which nothing is to be escaped.
///
/// @param passes  With 0 or less `out` is left alone, unless `in` is empty.
/// @param out     Receives the text; empty for an empty `in`.
/// @return 0; 1 without memory.
VEX_EXPORT int EscapeMetaDataValue(const int& passes, const std::string& in, std::string& out);

/// Cuts off an entity that was broken at the end of a text: `abc&am` becomes `abc`.
VEX_EXPORT void ResizeEscapedString(std::string& text);

/// Decodes one layer of escaping.
///
/// Needs complete references: each `&` in `in` begins one of `&amp;`, `&lt;`, `&gt;`, `&quot;`,
/// `&apos;`, `&nbsp;` or a numeric reference of at most four characters between "&#" and ";". With
/// other input the result is not meaningful, and the call may not return at all: a `&` in front of
/// another letter or sign, with "&#" somewhere behind it and no ";" close by, is read for ever.
/// `&apos;` comes out as "&;" where an `&amp;` stands close in front of it or anywhere behind it.
/// XmlUnescapeValue of xml_utils.h takes any text.
///
/// @param out  The text is appended. Another object than `in`.
/// @return 0; 1 for an empty text and without memory.
VEX_EXPORT int UnescapeXmlValue(const std::string& in, std::string& out);

/// Splits a `protocolInfo` value: `http-get:*:audio/mpeg:*` gives `http-get`, `audio/mpeg`, `*`.
/// With a single ":" in the value, `content_format` comes out as the first field and
/// `additional_info` as the rest.
///
/// @return 1 on success; 0 for a value without ":" and, with `protocol` set, for one with two.
VEX_EXPORT int ParseProtocolInfo(const std::string& info, std::string& protocol,
                                 std::string& content_format, std::string& additional_info);

/// Splits a `protocolInfo` value into all four fields; the last one is all the rest.
///
/// @return 1 on success; 0 at the first ":" that is missing, with the fields before it set.
VEX_EXPORT int ParseProtocolInfo(const std::string& info, std::string& protocol,
                                 std::string& network, std::string& content_format,
                                 std::string& additional_info);

/// Takes the host out of a resource's URL, which must begin with "http://" and give a port.
///
/// @return 0 or 1.
VEX_EXPORT int GetIPFromResource(const std::string& uri, std::string& ip);

/// Appends an argument to a list; an empty name does nothing.
VEX_EXPORT void SetListArgument(const std::string& name, const std::string& value,
                                std::list<CPUtilsArgument>& list);

}  // namespace cp_utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_CP_UTILS_H_
