#ifndef VEXUPNPCP_TESTS_SUPPORT_PRIVATE_NETWORK_H_
#define VEXUPNPCP_TESTS_SUPPORT_PRIVATE_NETWORK_H_

#include <string>

#include "tests/support/scoped_folder.h"

namespace vex_test {

// For programs that run inside a network namespace of their own (tools/in_netns).

// Whether this one does; nothing below touches an interface when it does not.
bool InPrivateNetwork();

// Runs `ip` with these arguments; the test fails when that does.
void Ip(const std::string& arguments);

// An address on an interface, from here to the end of the scope. With a label it has an alias name
// of its own.
class ScopedAddress {
 public:
  ScopedAddress(const std::string& device, const std::string& address_and_prefix,
                const std::string& label = "");
  ScopedAddress(const ScopedAddress&) = delete;
  ScopedAddress& operator=(const ScopedAddress&) = delete;
  ~ScopedAddress();

 private:
  const std::string device_;
  const std::string address_;
};

// Takes a link down for the scope and waits until it runs again at its end.
class ScopedLinkDown {
 public:
  explicit ScopedLinkDown(const std::string& device);
  ScopedLinkDown(const ScopedLinkDown&) = delete;
  ScopedLinkDown& operator=(const ScopedLinkDown&) = delete;
  ~ScopedLinkDown();

 private:
  const std::string device_;
};

// Whether a link is up and has a carrier.
bool IsRunning(const std::string& device);

// A hosts file of one's own for the scope, with this text behind the usual line for localhost.
class ScopedHosts {
 public:
  explicit ScopedHosts(const std::string& lines);
  ScopedHosts(const ScopedHosts&) = delete;
  ScopedHosts& operator=(const ScopedHosts&) = delete;
  ~ScopedHosts();

 private:
  const ScopedFolder folder_;
  const std::string path_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_PRIVATE_NETWORK_H_
