#ifndef VEXUPNPCP_TESTS_SUPPORT_TCP_TABLE_H_
#define VEXUPNPCP_TESTS_SUPPORT_TCP_TABLE_H_

#include <cstdint>
#include <vector>

namespace vex_test {

// One TCP socket of IPv4 as the kernel lists it.
struct TcpRow {
  // In network byte order.
  std::uint32_t local_ip = 0;
  std::uint32_t remote_ip = 0;
  int local_port = 0;
  int remote_port = 0;
  bool listening = false;
  // The other side has ended its stream, and this one has not.
  bool half_closed = false;
  // Bytes that have come and have not been read; with one that listens, connections that have not
  // been taken.
  unsigned unread = 0;
  // Whether a descriptor stands for it. One that was closed may stay until its peer has learnt it.
  bool owned = false;
};

// All sockets of the calling thread's network.
std::vector<TcpRow> TcpTable();

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_TCP_TABLE_H_
