#ifndef VEXCP_FILE_SERVER_H_
#define VEXCP_FILE_SERVER_H_

#include <vexupnpcp/streaming.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "byte_range.h"

namespace vexcp {

// The type of a file by the end of its name.
std::string MimeType(const std::string& name);

// Serves one file, or the files below a folder, by the library's streaming server, to any number of
// clients at a time. There can be only one such server: the library calls plain functions.
class FileServer {
 public:
  // Told from the library's threads.
  using Tell = std::function<void(const std::string& line)>;

  // Throws Failure when there is nothing to serve. The framework must run.
  FileServer(const std::string& path, Tell tell);
  ~FileServer();
  FileServer(const FileServer&) = delete;
  FileServer& operator=(const FileServer&) = delete;

  // On one address of ours, or, if it is empty, on all selected interfaces, which it then follows.
  // A taken port moves on to the next free one of 100. Returns the addresses of what is served;
  // throws Failure.
  std::vector<std::string> Start(const std::string& ip, int port);

 private:
  using SessionKey = std::pair<int, int>;
  // An answer on its way.
  struct Transfer;
  // What a request is answered with.
  struct Answer;

  static void OnConnect(int, int, int) {}
  static void OnStatus(int server, int session, int code);
  static void OnRequest(int server, int session, vex_upnp::streaming::ReqHeaderInfo* request,
                        void* body, unsigned int length, bool final);
  static void OnData(int server, int session, void* data, unsigned int length, bool final);
  static void OnWritten(int server, int session, unsigned int length);

  Answer Find(const vex_upnp::streaming::ReqHeaderInfo& request) const;
  void AnswerRequest(const SessionKey& key, const vex_upnp::streaming::ReqHeaderInfo& request);
  void SendNext(const SessionKey& key);
  std::string Address(int server_id) const;

  // Held shared by each callback, and alone to take the server away: one that comes late finds
  // none.
  static std::shared_mutex current_mutex_;
  static FileServer* current_;
  // Of the file or folder, without links.
  std::string root_;
  bool is_folder_ = false;
  const Tell tell_;
  int configuration_ = 0;
  std::mutex mutex_;
  std::map<SessionKey, std::shared_ptr<Transfer>> transfers_;
  // Of the server that was stopped last: it ends behind the callback that tells of it, and until
  // then its writes read from what is mapped.
  std::map<SessionKey, std::shared_ptr<Transfer>> ended_;
};

}  // namespace vexcp

#endif  // VEXCP_FILE_SERVER_H_
