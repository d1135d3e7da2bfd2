#include <string_view>

#include "soap_answer.h"

namespace vexcp {

namespace {

struct Meaning {
  // Part of the service type; empty for every service.
  std::string_view service;
  int code;
  const char* text;
};

// UPnP Device Architecture 1.0 and 1.1, and the services of the AV architecture. Codes from 700 on
// belong to the service.
constexpr Meaning kMeanings[] = {
    {"", 401, "the service has no such action"},
    {"", 402, "arguments are missing, superfluous, in the wrong order or of the wrong type"},
    {"", 403, "the device has lost track of the caller"},
    {"", 404, "the service has no such variable"},
    {"", 501,
     "the service is in a state in which it cannot do this, or the connection to the device broke"},
    {"", 600, "a value is none that the argument takes"},
    {"", 601, "a value is less than the least or more than the most that the argument takes"},
    {"", 602, "the device does not offer this optional action"},
    {"", 603, "the device has not enough memory"},
    {"", 604, "somebody has to do something at the device first"},
    {"", 605, "a text is too long for the device"},
    {"", 606, "the caller is not allowed to do this"},
    {"", 607, "the signature of the request is wrong"},
    {"", 608, "the request is not signed"},
    {"", 609, "the request is not encrypted"},
    {"", 610, "the sequence number of the request is wrong"},
    {"", 611, "the control URL does not fit the device"},
    {"", 612, "the session is unknown to the device"},
    {"service:AVTransport:", 701, "the transport cannot do this in its present state"},
    {"service:AVTransport:", 702, "the medium holds nothing that can be played"},
    {"service:AVTransport:", 703, "the medium cannot be read"},
    {"service:AVTransport:", 704, "the medium's format cannot be played"},
    {"service:AVTransport:", 705, "the transport is locked"},
    {"service:AVTransport:", 706, "the medium cannot be written"},
    {"service:AVTransport:", 707, "the medium is protected against writing"},
    {"service:AVTransport:", 708, "the medium's format cannot be recorded"},
    {"service:AVTransport:", 709, "the medium is full"},
    {"service:AVTransport:", 710, "the device cannot seek by this unit"},
    {"service:AVTransport:", 711, "the target of the seek does not exist"},
    {"service:AVTransport:", 712, "the device does not know this play mode"},
    {"service:AVTransport:", 713, "the device does not know this record quality"},
    {"service:AVTransport:", 714, "the resource has a MIME type that the device does not play"},
    {"service:AVTransport:", 715, "the resource is in use"},
    {"service:AVTransport:", 716, "the resource was not found"},
    {"service:AVTransport:", 717, "the device does not know this play speed"},
    {"service:AVTransport:", 718, "there is no instance with this InstanceID"},
    {"service:RenderingControl:", 701, "the device does not know this preset"},
    {"service:RenderingControl:", 702, "there is no instance with this InstanceID"},
    {"service:ContentDirectory:", 701, "there is no object with this id"},
    {"service:ContentDirectory:", 702, "the present values given are not those of the object"},
    {"service:ContentDirectory:", 703, "the new values given are not valid"},
    {"service:ContentDirectory:", 704, "a tag that the object needs cannot be deleted"},
    {"service:ContentDirectory:", 705, "the tag can only be read"},
    {"service:ContentDirectory:", 706, "the present and new values are not equally many"},
    {"service:ContentDirectory:", 708, "the device cannot search by these criteria"},
    {"service:ContentDirectory:", 709, "the device cannot sort by these criteria"},
    {"service:ContentDirectory:", 710, "there is no container with this id"},
    {"service:ContentDirectory:", 711, "the object cannot be changed"},
    {"service:ContentDirectory:", 712, "the metadata are not valid"},
    {"service:ContentDirectory:", 713, "the container cannot be changed"},
    {"service:ContentDirectory:", 714, "there is no such resource to take from"},
    {"service:ContentDirectory:", 715, "the resource to take from cannot be read"},
    {"service:ContentDirectory:", 716, "another transfer is under way"},
    {"service:ContentDirectory:", 717, "there is no such transfer"},
    {"service:ContentDirectory:", 718, "there is no such resource to write to"},
    {"service:ContentDirectory:", 719, "the resource to write to cannot be written"},
    {"service:ContentDirectory:", 720, "the device cannot process the request"},
    {"service:ConnectionManager:", 701, "the two devices have no protocol or format in common"},
    {"service:ConnectionManager:", 702, "the directions do not fit each other"},
    {"service:ConnectionManager:", 703, "the network has not enough capacity left"},
    {"service:ConnectionManager:", 704, "the device itself forbids it at the moment"},
    {"service:ConnectionManager:", 705, "the caller is not allowed to do this"},
    {"service:ConnectionManager:", 706, "there is no connection with this id"},
    {"service:ConnectionManager:", 707, "the devices are not in one network"},
};

constexpr int kServiceCodes = 700, kVendorCodes = 800, kBehindCodes = 900, kTimeout = 801;

}  // namespace

std::string ErrorMeaning(int code, const std::string& service_type) {
  for (const Meaning& meaning : kMeanings)
    if (meaning.code == code && service_type.find(meaning.service) != std::string::npos)
      return meaning.text;
  if (code == kTimeout) return "the device gave no answer for 30 seconds, or an error of its maker";
  if (code >= kServiceCodes && code < kVendorCodes) return "an error that this service defines";
  if (code >= kVendorCodes && code < kBehindCodes)
    return "an error that the device's maker defines";
  return std::string();
}

}  // namespace vexcp
