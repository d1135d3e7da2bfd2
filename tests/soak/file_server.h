#ifndef VEXUPNPCP_TESTS_SOAK_FILE_SERVER_H_
#define VEXUPNPCP_TESTS_SOAK_FILE_SERVER_H_

#include <vexupnpcp/streaming.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace soak {

// Serves one file, whatever path is asked for.
class FileServer {
 public:
  explicit FileServer(const std::string& path);

  // Gives the port.
  int Start();
  void Stop();

 private:
  using Session = std::pair<int, int>;

  static void OnConnect(int server, int session, int reserved);
  static void OnStatus(int server, int session, int code);
  static void OnRequest(int server, int session, vex_upnp::streaming::ReqHeaderInfo* request,
                        void* body, unsigned int length, bool final);
  static void OnData(int server, int session, void* data, unsigned int length, bool final);
  static void OnWritten(int server, int session, unsigned int length);

  static FileServer* current_;

  std::string content_;
  int configuration_ = 0;
  std::mutex mutex_;
  // How much of the file has been handed over.
  std::map<Session, std::size_t> sent_;
};

}  // namespace soak

#endif  // VEXUPNPCP_TESTS_SOAK_FILE_SERVER_H_
