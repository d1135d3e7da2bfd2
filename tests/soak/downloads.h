#ifndef VEXUPNPCP_TESTS_SOAK_DOWNLOADS_H_
#define VEXUPNPCP_TESTS_SOAK_DOWNLOADS_H_

#include <vexupnpcp/streaming.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "sha256.h"

namespace soak {

// Fetches media on a thread of its own, by the asynchronous and the synchronous client in turn, and
// compares each copy with what it should be.
class Downloads {
 public:
  // The digest that every file has.
  void Expect(const std::string& sha256) { expected_ = sha256; }
  void Start();
  void Stop();
  // Thrown away when many wait already. A copy of a server that never dies must come whole.
  void Add(const std::string& url, bool must_come);

 private:
  struct Wanted {
    std::string host;
    int port = 0;
    std::string path;
    bool must_come = false;
  };
  enum class State { kRunning, kWhole, kFailed };

  static void OnStatus(int handler, int client, int code);
  static void OnResponse(int handler, int client, vex_upnp::streaming::ResHeaderInfo* response,
                         void* body, unsigned int length, bool final);
  static void OnData(int handler, int client, void* data, unsigned int length, bool final);
  static void OnWritten(int handler, int client, unsigned int length);

  void Run();
  void Take(const void* data, std::size_t length, bool final);
  void End(State state);
  bool FetchAsync(const Wanted& wanted);
  bool FetchSync(const Wanted& wanted);

  static Downloads* current_;

  std::string expected_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Wanted> waiting_;
  bool ended_ = false;
  State state_ = State::kRunning;
  Sha256 digest_;
};

}  // namespace soak

#endif  // VEXUPNPCP_TESTS_SOAK_DOWNLOADS_H_
