#ifndef VEXUPNPCP_TESTS_SUPPORT_FAKE_DEVICE_H_
#define VEXUPNPCP_TESTS_SUPPORT_FAKE_DEVICE_H_

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vex_test {

// The HTTP side of any number of scripted devices: one address, one thread, replies by path.
class DescriptionServer {
 public:
  // Port 0 takes a free one.
  explicit DescriptionServer(const std::string& ip, int port = 0);
  DescriptionServer(const DescriptionServer&) = delete;
  DescriptionServer& operator=(const DescriptionServer&) = delete;
  ~DescriptionServer();

  const std::string& ip() const { return ip_; }
  int port() const { return port_; }
  // "http://ip:port" and the path.
  std::string Url(const std::string& path) const;

  // A whole reply with its length.
  void Serve(const std::string& path, const std::string& body, int status = 200);
  // Exactly these bytes; the connection is closed behind them.
  void ServeRaw(const std::string& path, const std::string& bytes);
  // Requests for the path stay unanswered until Release.
  void Hold(const std::string& path);
  void Release(const std::string& path);
  // No connection is accepted any more, those that are open end.
  void Close();

  // Whole requests, in order of arrival.
  std::vector<std::string> Requests() const;
  // How often a request for this target (path or absolute URL) came.
  int Count(const std::string& target) const;
  // The addresses that connections came from, one for each.
  int Connections() const { return connections_; }

 private:
  struct Reply {
    std::string bytes;
    bool close = false;
  };
  struct Connection {
    std::string input;
    std::string output;
    bool close_when_sent = false;
    std::vector<std::string> held;
  };

  void Run();
  void Accept();
  bool ReadFrom(int socket, Connection& connection);
  bool WriteTo(int socket, Connection& connection);
  void Answer(const std::string& request, Connection& connection);
  void AnswerPath(const std::string& path, Connection& connection);
  void AnswerReleased();
  void CloseAll();

  const std::string ip_;
  int port_ = 0;
  int listener_ = -1;
  int poll_ = -1;
  std::atomic<bool> stopped_{false};
  std::atomic<bool> closing_{false};
  std::atomic<bool> released_{false};
  std::atomic<int> connections_{0};
  std::map<int, Connection> open_;
  mutable std::mutex mutex_;
  std::map<std::string, Reply> replies_;
  std::map<std::string, bool> held_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

struct FakeService {
  std::string type;
  std::string id;
  std::string scpd_url;
  std::string control_url = "/control";
  std::string event_sub_url = "/event";
};

// What a description tells of one device.
struct FakeDevice {
  std::string udn;
  std::string type = "urn:schemas-upnp-org:device:MediaServer:1";
  std::string friendly_name = "Fake";
  std::string model_description = "A scripted device";
  std::vector<FakeService> services;
  std::vector<FakeDevice> embedded;
  // Verbatim, inside the device element and at root level.
  std::string more;
  std::string root_more;
};

std::string DescriptionOf(const FakeDevice& device);

// `count` services whose descriptions lie at "<prefix>/scpd<n>.xml".
std::vector<FakeService> FakeServices(int count, const std::string& prefix);

// Serves the description at `path`, and a small service description for each service of the device
// and of those embedded in it whose URL is a path. Returns the description's URL.
std::string ServeDevice(DescriptionServer& server, const std::string& path,
                        const FakeDevice& device);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_FAKE_DEVICE_H_
