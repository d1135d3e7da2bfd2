#ifndef VEXUPNPCP_TESTS_SUPPORT_MEDIA_PEER_H_
#define VEXUPNPCP_TESTS_SUPPORT_MEDIA_PEER_H_

#include <functional>
#include <string>
#include <thread>

namespace vex_test {

// One accepted connection of a MediaPeer.
class MediaConnection {
 public:
  explicit MediaConnection(int descriptor) : descriptor_(descriptor) {}

  // Everything up to and including `end`; what has come when the other side closes.
  std::string ReadUntil(const std::string& end);
  std::string ReadBytes(std::size_t count);
  void Send(const std::string& data);
  // Waits until the other side has closed or reset.
  void AwaitClose();
  // Makes the coming close a reset.
  void ResetOnClose();

 private:
  const int descriptor_;
};

// Listens on a loopback port and runs a script on the one connection it accepts.
class MediaPeer {
 public:
  explicit MediaPeer(std::function<void(MediaConnection&)> script);
  MediaPeer(const MediaPeer&) = delete;
  MediaPeer& operator=(const MediaPeer&) = delete;
  // Waits for the script's end.
  ~MediaPeer();

  int port() const { return port_; }

 private:
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_MEDIA_PEER_H_
