#ifndef VEXSIM_SSDP_SOCKET_H_
#define VEXSIM_SSDP_SOCKET_H_

#include <netinet/in.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"
#include "interfaces.h"

namespace vexsim {

constexpr char kSsdpGroup[] = "239.255.255.250";
constexpr unsigned short kSsdpPort = 1900;

struct Datagram {
  std::string text;
  sockaddr_in to{};
  // Where it leaves, and the source address it carries.
  int interface_index = 0;
  in_addr source{};
};

sockaddr_in SsdpGroupAddress();

// The one socket for all SSDP traffic: joined to the group on every interface, it learns from each
// datagram where that came in, and says for each one where it goes out.
class SsdpSocket {
 public:
  using Receiver =
      std::function<void(std::string_view text, const sockaddr_in& from, int interface_index)>;

  // Throws std::system_error.
  SsdpSocket(EventLoop& loop, const std::vector<Interface>& interfaces, Receiver receiver);
  ~SsdpSocket();
  SsdpSocket(const SsdpSocket&) = delete;
  SsdpSocket& operator=(const SsdpSocket&) = delete;

  // Joins the group on interfaces that are new.
  void Join(const std::vector<Interface>& interfaces);
  // Many datagrams in few system calls. Returns how many the kernel took.
  std::size_t Send(const std::vector<Datagram>& datagrams);

 private:
  void Receive();

  EventLoop& loop_;
  Receiver receiver_;
  FileHandle socket_;
};

}  // namespace vexsim

#endif  // VEXSIM_SSDP_SOCKET_H_
