#ifndef VEXUPNPCP_TESTS_SUPPORT_SSDP_PEER_H_
#define VEXUPNPCP_TESTS_SUPPORT_SSDP_PEER_H_

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vex_test {

// A UDP socket of a scripted device: it sends whole datagrams from one address.
class SsdpPeer {
 public:
  // `group_interface` is the local address through which groups are reached; empty for `ip`.
  explicit SsdpPeer(const std::string& ip, const std::string& group_interface = "");
  SsdpPeer(const SsdpPeer&) = delete;
  SsdpPeer& operator=(const SsdpPeer&) = delete;
  ~SsdpPeer();

  void Send(const std::string& datagram, const std::string& ip, int port);

 private:
  int socket_ = -1;
};

struct Datagram {
  std::string sender_ip;
  int sender_port;
  std::string bytes;
};

// Collects what is sent to one multicast group on one interface, at port 1900.
class GroupWatcher {
 public:
  GroupWatcher(const std::string& group, const std::string& interface_ip);
  GroupWatcher(const GroupWatcher&) = delete;
  GroupWatcher& operator=(const GroupWatcher&) = delete;
  ~GroupWatcher();

  std::vector<Datagram> Received() const;
  // How many began with this text.
  int Count(const std::string& start) const;
  void Clear();

 private:
  void Run();

  int socket_ = -1;
  std::atomic<bool> stopped_{false};
  mutable std::mutex mutex_;
  std::vector<Datagram> received_;
  std::thread thread_;
};

// The datagrams of a device, in the usual form.
std::string AliveDatagram(const std::string& usn, const std::string& nt,
                          const std::string& location);
std::string ByebyeDatagram(const std::string& usn, const std::string& nt);
std::string SearchAnswerDatagram(const std::string& usn, const std::string& st,
                                 const std::string& location);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_SSDP_PEER_H_
