#include "control_channel.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace vexsim {

namespace {

constexpr std::size_t kLongestLine = 64 * 1024;

void WriteAll(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = write(descriptor, text.data() + done, text.size() - done);
    // Whoever does not read the answers loses them; the devices must go on.
    if (size <= 0) return;
    done += static_cast<std::size_t>(size);
  }
}

// A regular file or /dev/null cannot be waited for.
bool IsPollable(int descriptor) {
  struct stat info {};
  if (fstat(descriptor, &info) != 0) return false;
  return S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || isatty(descriptor) == 1;
}

}  // namespace

ControlChannel::ControlChannel(EventLoop& loop, Executor executor)
    : loop_(loop), executor_(std::move(executor)) {}

ControlChannel::~ControlChannel() {
  if (!path_.empty()) unlink(path_.c_str());
}

void ControlChannel::ReadStandardInput(std::function<void()> on_end) {
  on_end_ = std::move(on_end);
  if (IsPollable(STDIN_FILENO)) {
    loop_.Watch(STDIN_FILENO, EPOLLIN, [this](std::uint32_t) { ReadInput(); });
    return;
  }
  std::array<char, 4096> buffer;
  ssize_t size = 0;
  while ((size = read(STDIN_FILENO, buffer.data(), buffer.size())) > 0)
    input_.append(buffer.data(), static_cast<std::size_t>(size));
  ExecuteLines(input_, STDOUT_FILENO);
}

void ControlChannel::ReadInput() {
  std::array<char, 4096> buffer;
  const ssize_t size = read(STDIN_FILENO, buffer.data(), buffer.size());
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) {
    loop_.Forget(STDIN_FILENO);
    on_end_();
    return;
  }
  input_.append(buffer.data(), static_cast<std::size_t>(size));
  ExecuteLines(input_, STDOUT_FILENO);
}

void ControlChannel::ExecuteLines(std::string& input, int output) {
  for (;;) {
    const std::size_t end = input.find('\n');
    if (end == std::string::npos) break;
    const std::string line = input.substr(0, end);
    input.erase(0, end + 1);
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    WriteAll(output, executor_(line) + "\n");
  }
  if (input.size() > kLongestLine) input.clear();
}

void ControlChannel::Listen(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path))
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  listener_ = FileHandle(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const auto* raw = reinterpret_cast<const sockaddr*>(&address);
  FileHandle probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(probe.get(), raw, sizeof(address)) != 0 && errno == ECONNREFUSED)
    unlink(path.c_str());
  if (bind(listener_.get(), raw, sizeof(address)) != 0 || listen(listener_.get(), 16) != 0)
    throw std::system_error(errno, std::generic_category(), path);
  path_ = path;
  loop_.Watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { Accept(); });
}

void ControlChannel::Accept() {
  FileHandle socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!socket.valid()) return;
  const int descriptor = socket.get();
  clients_[descriptor].socket = std::move(socket);
  loop_.Watch(descriptor, EPOLLIN, [this, descriptor](std::uint32_t) { ReadClient(descriptor); });
}

void ControlChannel::ReadClient(int descriptor) {
  Client& client = clients_[descriptor];
  std::array<char, 4096> buffer;
  const ssize_t size = recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) {
    loop_.Forget(descriptor);
    clients_.erase(descriptor);
    return;
  }
  client.input.append(buffer.data(), static_cast<std::size_t>(size));
  ExecuteLines(client.input, descriptor);
}

}  // namespace vexsim
