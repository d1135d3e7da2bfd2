#ifndef VEXSIM_INTERFACES_H_
#define VEXSIM_INTERFACES_H_

#include <netinet/in.h>

#include <string>
#include <vector>

namespace vexsim {

struct Interface {
  int index = 0;
  std::string name;
  in_addr address{};
  // Dotted decimal.
  std::string text;
};

// The IPv4 interfaces with these names that are up; with no names, all but loopback.
std::vector<Interface> FindInterfaces(const std::vector<std::string>& names);

}  // namespace vexsim

#endif  // VEXSIM_INTERFACES_H_
