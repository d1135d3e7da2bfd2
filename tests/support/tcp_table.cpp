#include "tests/support/tcp_table.h"

#include <cstdio>
#include <fstream>
#include <string>

namespace vex_test {

std::vector<TcpRow> TcpTable() {
  constexpr unsigned kListening = 0x0A;
  constexpr unsigned kHalfClosed = 0x08;
  std::vector<TcpRow> rows;
  std::ifstream table("/proc/thread-self/net/tcp");
  std::string line;
  while (std::getline(table, line)) {
    unsigned local_ip = 0, local_port = 0, remote_ip = 0, remote_port = 0, state = 0, unread = 0;
    unsigned long inode = 0;
    if (std::sscanf(line.c_str(), " %*d: %x:%x %x:%x %x %*x:%x %*x:%*x %*x %*d %*d %lu", &local_ip,
                    &local_port, &remote_ip, &remote_port, &state, &unread, &inode) != 7) {
      continue;
    }
    rows.push_back({local_ip, remote_ip, static_cast<int>(local_port),
                    static_cast<int>(remote_port), state == kListening, state == kHalfClosed,
                    unread, inode != 0});
  }
  return rows;
}

}  // namespace vex_test
