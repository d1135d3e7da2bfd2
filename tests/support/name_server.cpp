#include "tests/support/name_server.h"

#include <dlfcn.h>
#include <netdb.h>

#include <mutex>
#include <utility>

#include "tests/support/wait_until.h"

namespace vex_test {
namespace {

std::mutex server_mutex;
NameServer* server = nullptr;

}  // namespace

NameServer::NameServer(std::string name, std::vector<std::string> addresses)
    : name_(std::move(name)), addresses_(std::move(addresses)) {
  const std::lock_guard<std::mutex> lock(server_mutex);
  server = this;
}

NameServer::~NameServer() {
  {
    const std::lock_guard<std::mutex> lock(server_mutex);
    server = nullptr;
  }
  Release();
  WaitUntil([this] { return inside_ == 0; });
}

NameServer* NameServer::Enter(const char* name) {
  const std::lock_guard<std::mutex> lock(server_mutex);
  if (server == nullptr || name == nullptr || server->name_ != name) return nullptr;
  ++server->inside_;
  return server;
}

const std::vector<std::string>& NameServer::Await() {
  ++asked_;
  ++waiting_;
  WaitUntil([this] { return !held_.load(); });
  --waiting_;
  return addresses_;
}

void NameServer::Leave() { --inside_; }

}  // namespace vex_test

// NOLINTNEXTLINE(readability-identifier-naming): the system's own name.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
  static const auto original =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  vex_test::NameServer* const server = vex_test::NameServer::Enter(name);
  if (server == nullptr) return original(name, service, hints, result);
  // The system's own entries, one for each address in one list: it frees them one by one.
  addrinfo** end = result;
  int outcome = EAI_NONAME;
  for (const std::string& address : server->Await()) {
    outcome = original(address.c_str(), service, hints, end);
    if (outcome != 0) break;
    while (*end != nullptr) end = &(*end)->ai_next;
  }
  server->Leave();
  return outcome;
}
