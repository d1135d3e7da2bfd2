#ifndef VEXUPNPCP_SRC_SOAP_FAULT_H_
#define VEXUPNPCP_SRC_SOAP_FAULT_H_

#include <string>

namespace vex_upnp {

// The fixed UPnP faults (UPnP Device Architecture 1.0, 3.2.2) that the library sends or makes up.
// They are the same pieces with other blanks, and the blanks are part of what peers and parsers
// have always been given.

enum class FaultLayout {
  // One blank between the attributes of the envelope, nothing between elements.
  kProper,
  // KEPT: twelve blanks at five places, which Content-Length does not count.
  kIndented,
  // KEPT: no blank in front of either attribute of the envelope, so that its start tag is
  // misformed.
  kRunTogether,
};

std::string SoapFaultBody(int code, const std::string& description, FaultLayout layout);

// The whole answer 400 with fault 402 "Invalid Args"; each user has a layout of its own.
enum class BadRequestLayout {
  // KEPT: a blank in front of every line end of the header but that of the empty line.
  kTrailingBlanks,
  kPlain,
  // KEPT: twelve blanks in front of each header line but the first; the body is indented too.
  kIndented,
};

std::string BadRequestAnswer(BadRequestLayout layout);

// The whole answer 500 with fault 501 "Action Failed" that stands for a broken connection.
std::string BrokenConnectionAnswer();

// The body of fault 801 "Action Timeout" that stands for an answer which did not come.
std::string ActionTimeoutBody();

}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_SOAP_FAULT_H_
