#ifndef VEXUPNPCP_BASE_ADDRESS_TEXT_H_
#define VEXUPNPCP_BASE_ADDRESS_TEXT_H_

#include <charconv>
#include <string>

#include "base/asio.h"

namespace vex_upnp {

// The dotted form of an address, as its to_string() gives it. That one goes through printf, which
// costs more than all else that is done with the address of a message.
inline std::string AddressText(const boost::asio::ip::address& address) {
  if (!address.is_v4()) return address.to_string();
  char text[sizeof("255.255.255.255")];
  char* end = text;
  for (const unsigned char number : address.to_v4().to_bytes()) {
    if (end != text) *end++ = '.';
    end = std::to_chars(end, text + sizeof(text), number).ptr;
  }
  return std::string(text, end);
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_ADDRESS_TEXT_H_
