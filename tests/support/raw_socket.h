#ifndef VEXUPNPCP_TESTS_SUPPORT_RAW_SOCKET_H_
#define VEXUPNPCP_TESTS_SUPPORT_RAW_SOCKET_H_

#include <cstddef>
#include <string>
#include <vector>

namespace vex_test {

// A loopback address of this process's own, so that tests which run at the same time don't meet at
// one port.
std::string OwnLoopbackAddress();

// One end of a TCP connection, without any protocol.
class TcpClient {
 public:
  TcpClient(const std::string& ip, int port);
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;
  ~TcpClient();

  bool connected() const { return connected_; }
  std::string local_ip() const;
  int local_port() const;
  // False when the peer has gone.
  bool Send(const std::string& data);
  // Everything up to the peer's end or reset; what has come by then when nothing comes for 20 s.
  std::string ReadToEnd();
  // As many bytes; fewer when the peer ends or nothing comes for 20 s.
  std::string ReadBytes(std::size_t count);
  // Whether the peer has closed; waits for it.
  bool PeerCloses();
  // Whether the connection is open and silent now.
  bool OpenAndSilent();
  void EndSending();
  // Closes with a reset instead of an end.
  void Reset();

 private:
  int descriptor_;
  bool connected_ = false;
};

// A datagram socket.
class UdpSocket {
 public:
  explicit UdpSocket(const std::string& ip, int port = 0);
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  ~UdpSocket();

  int port() const;
  bool SendTo(const std::string& ip, int port, const std::string& data);
  // The next datagram and who sent it; false when none comes in 20 s.
  bool Receive(std::string& data, std::string& from_ip, int& from_port);

 private:
  int descriptor_;
};

// Holds ports without listening, so that nobody else can bind them.
class HeldPorts {
 public:
  // SOCK_STREAM or SOCK_DGRAM, `count` ports from `first` on.
  HeldPorts(int type, const std::string& ip, int first, int count);
  HeldPorts(const HeldPorts&) = delete;
  HeldPorts& operator=(const HeldPorts&) = delete;
  ~HeldPorts();

  bool all() const { return all_; }

 private:
  std::vector<int> descriptors_;
  bool all_ = true;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_RAW_SOCKET_H_
