#include "tests/support/fake_device.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace vex_test {
namespace {

constexpr int kBacklog = 4096;
constexpr int kPollMs = 5;

void Check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

std::string TargetOf(const std::string& request) {
  const std::size_t start = request.find(' ');
  const std::size_t end = request.find(' ', start + 1);
  return end == std::string::npos ? std::string() : request.substr(start + 1, end - start - 1);
}

// A target may be an absolute URL.
std::string PathOf(const std::string& target) {
  const std::size_t slashes = target.find("//");
  if (slashes == std::string::npos) return target;
  const std::size_t slash = target.find('/', slashes + 2);
  return slash == std::string::npos ? "/" : target.substr(slash);
}

void Watch(int poll, int socket, std::uint32_t events, int operation) {
  epoll_event event{};
  event.events = events;
  event.data.fd = socket;
  epoll_ctl(poll, operation, socket, &event);
}

}  // namespace

DescriptionServer::DescriptionServer(const std::string& ip, int port) : ip_(ip) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  Check(listener_, "socket");
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  Check(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
  Check(listen(listener_, kBacklog), "listen");
  socklen_t length = sizeof(address);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  poll_ = epoll_create1(EPOLL_CLOEXEC);
  Check(poll_, "epoll_create1");
  Watch(poll_, listener_, EPOLLIN, EPOLL_CTL_ADD);
  thread_ = std::thread([this] { Run(); });
}

DescriptionServer::~DescriptionServer() {
  stopped_ = true;
  thread_.join();
  CloseAll();
  close(poll_);
}

std::string DescriptionServer::Url(const std::string& path) const {
  return "http://" + ip_ + ":" + std::to_string(port_) + path;
}

void DescriptionServer::Serve(const std::string& path, const std::string& body, int status) {
  const std::string bytes =
      "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Status") +
      "\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
      body;
  const std::lock_guard<std::mutex> lock(mutex_);
  replies_[path] = {bytes, false};
}

void DescriptionServer::ServeRaw(const std::string& path, const std::string& bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  replies_[path] = {bytes, true};
}

void DescriptionServer::Hold(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  held_[path] = true;
}

void DescriptionServer::Release(const std::string& path) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_.erase(path);
  }
  released_ = true;
}

void DescriptionServer::Close() {
  closing_ = true;
  while (closing_) std::this_thread::yield();
}

std::vector<std::string> DescriptionServer::Requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int DescriptionServer::Count(const std::string& target) const {
  const std::vector<std::string> requests = Requests();
  return static_cast<int>(
      std::count_if(requests.begin(), requests.end(),
                    [&](const std::string& request) { return TargetOf(request) == target; }));
}

void DescriptionServer::Run() {
  std::vector<epoll_event> events(256);
  while (!stopped_) {
    const int count = epoll_wait(poll_, events.data(), static_cast<int>(events.size()), kPollMs);
    if (closing_) {
      CloseAll();
      closing_ = false;
      continue;
    }
    if (released_.exchange(false)) AnswerReleased();
    for (int i = 0; i < count; ++i) {
      const int socket = events[static_cast<std::size_t>(i)].data.fd;
      if (socket == listener_) {
        Accept();
        continue;
      }
      const auto found = open_.find(socket);
      if (found == open_.end()) continue;
      if (!ReadFrom(socket, found->second) || !WriteTo(socket, found->second)) {
        open_.erase(found);
        close(socket);
      }
    }
  }
}

void DescriptionServer::Accept() {
  for (;;) {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0) return;
    ++connections_;
    open_[socket];
    Watch(poll_, socket, EPOLLIN, EPOLL_CTL_ADD);
  }
}

// False when the connection is over.
bool DescriptionServer::ReadFrom(int socket, Connection& connection) {
  char buffer[8192];
  for (;;) {
    const ssize_t size = recv(socket, buffer, sizeof(buffer), 0);
    if (size == 0) return false;
    if (size < 0) break;
    connection.input.append(buffer, static_cast<std::size_t>(size));
  }
  if (errno != EAGAIN) return false;
  for (std::size_t end = connection.input.find("\r\n\r\n"); end != std::string::npos;
       end = connection.input.find("\r\n\r\n")) {
    const std::string request = connection.input.substr(0, end + 4);
    connection.input.erase(0, end + 4);
    Answer(request, connection);
  }
  return true;
}

bool DescriptionServer::WriteTo(int socket, Connection& connection) {
  while (!connection.output.empty()) {
    const ssize_t size =
        send(socket, connection.output.data(), connection.output.size(), MSG_NOSIGNAL);
    if (size < 0) {
      if (errno != EAGAIN) return false;
      Watch(poll_, socket, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
      return true;
    }
    connection.output.erase(0, static_cast<std::size_t>(size));
  }
  Watch(poll_, socket, EPOLLIN, EPOLL_CTL_MOD);
  return !connection.close_when_sent;
}

void DescriptionServer::Answer(const std::string& request, Connection& connection) {
  const std::string path = PathOf(TargetOf(request));
  const std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(request);
  if (held_.count(path) != 0) {
    connection.held.push_back(path);
  } else {
    AnswerPath(path, connection);
  }
}

void DescriptionServer::AnswerPath(const std::string& path, Connection& connection) {
  const auto reply = replies_.find(path);
  if (reply == replies_.end()) {
    connection.output += "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
    return;
  }
  connection.output += reply->second.bytes;
  connection.close_when_sent = reply->second.close;
}

void DescriptionServer::AnswerReleased() {
  for (auto connection = open_.begin(); connection != open_.end();) {
    const auto current = connection++;
    bool answered = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      std::vector<std::string> still_held;
      for (const std::string& path : current->second.held) {
        if (held_.count(path) != 0) {
          still_held.push_back(path);
        } else {
          AnswerPath(path, current->second);
          answered = true;
        }
      }
      current->second.held.swap(still_held);
    }
    if (answered && !WriteTo(current->first, current->second)) {
      close(current->first);
      open_.erase(current);
    }
  }
}

void DescriptionServer::CloseAll() {
  for (const auto& connection : open_) close(connection.first);
  open_.clear();
  if (listener_ >= 0) close(listener_);
  listener_ = -1;
}

namespace {

void AppendService(const FakeService& service, std::string& xml) {
  xml += "<service><serviceType>" + service.type + "</serviceType><serviceId>" + service.id +
         "</serviceId><SCPDURL>" + service.scpd_url + "</SCPDURL><controlURL>" +
         service.control_url + "</controlURL><eventSubURL>" + service.event_sub_url +
         "</eventSubURL></service>";
}

void AppendDevice(const FakeDevice& device, std::string& xml) {
  xml += "<device><deviceType>" + device.type + "</deviceType><friendlyName>" +
         device.friendly_name + "</friendlyName><manufacturer>Maker</manufacturer>" +
         "<modelDescription>" + device.model_description +
         "</modelDescription><modelName>Model</modelName><UDN>" + device.udn + "</UDN>" +
         device.more;
  if (!device.services.empty()) {
    xml += "<serviceList>";
    for (const FakeService& service : device.services) AppendService(service, xml);
    xml += "</serviceList>";
  }
  if (!device.embedded.empty()) {
    xml += "<deviceList>";
    for (const FakeDevice& embedded : device.embedded) AppendDevice(embedded, xml);
    xml += "</deviceList>";
  }
  xml += "</device>";
}

void ServeServices(DescriptionServer& server, const FakeDevice& device) {
  for (const FakeService& service : device.services) {
    if (service.scpd_url.empty() || service.scpd_url[0] != '/') continue;
    server.Serve(service.scpd_url, "<scpd>" + service.id + "</scpd>");
  }
  for (const FakeDevice& embedded : device.embedded) ServeServices(server, embedded);
}

}  // namespace

std::string DescriptionOf(const FakeDevice& device) {
  std::string xml =
      "<?xml version=\"1.0\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
      "<specVersion><major>1</major><minor>0</minor></specVersion>" +
      device.root_more;
  AppendDevice(device, xml);
  return xml + "</root>";
}

std::vector<FakeService> FakeServices(int count, const std::string& prefix) {
  std::vector<FakeService> services;
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    FakeService service;
    service.type = "urn:schemas-upnp-org:service:Fake" + number + ":1";
    service.id = "urn:upnp-org:serviceId:Fake" + number;
    service.scpd_url = prefix + "/scpd" + number + ".xml";
    services.push_back(service);
  }
  return services;
}

std::string ServeDevice(DescriptionServer& server, const std::string& path,
                        const FakeDevice& device) {
  ServeServices(server, device);
  server.Serve(path, DescriptionOf(device));
  return server.Url(path);
}

}  // namespace vex_test
