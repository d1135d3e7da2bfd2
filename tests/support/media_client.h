#ifndef VEXUPNPCP_TESTS_SUPPORT_MEDIA_CLIENT_H_
#define VEXUPNPCP_TESTS_SUPPORT_MEDIA_CLIENT_H_

#include <mutex>
#include <string>
#include <vector>

#include <vexupnpcp/streaming.h>

namespace vex_test {

// A host of asynchronous streaming clients: keeps what its callbacks are told, in order. The
// callbacks are plain functions, so there is one host at a time.
class MediaClient {
 public:
  MediaClient();
  MediaClient(const MediaClient&) = delete;
  MediaClient& operator=(const MediaClient&) = delete;
  ~MediaClient();

  static const vex_upnp::streaming::ClientAppCallbacks* callbacks();

  // "status HANDLER CLIENT CODE", "response HANDLER CLIENT STATUS LENGTH",
  // "data HANDLER CLIENT LENGTH", "written HANDLER CLIENT LENGTH"; " final" behind the last of a
  // message.
  std::vector<std::string> Events() const;
  int Count(const std::string& event) const;
  // Waits until this was told so often.
  bool Await(const std::string& event, int times = 1) const;
  // Waits for the last of a message.
  bool AwaitFinal() const;
  // All body that came.
  std::string Body() const;

 private:
  static void OnStatus(int handler, int client, int code);
  static void OnResponse(int handler, int client, vex_upnp::streaming::ResHeaderInfo* response,
                         void* body, unsigned int length, bool final);
  static void OnData(int handler, int client, void* data, unsigned int length, bool final);
  static void OnWritten(int handler, int client, unsigned int length);

  void Keep(const std::string& event, const void* body, unsigned int length);

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::string body_;
};

// An HTTP/1.1 request record without any header. Only `target` is kept, not copied.
vex_upnp::streaming::ReqHeaderInfo MediaRequest(vex_upnp::utils::HTTPRequest type,
                                                const char* target);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_MEDIA_CLIENT_H_
