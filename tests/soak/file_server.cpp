#include "file_server.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "report.h"

namespace soak {

namespace {

namespace st = vex_upnp::streaming;

constexpr std::size_t kPiece = 256 * 1024;
constexpr int kPort = 47500;
constexpr unsigned kStatusOk = 200;

}  // namespace

FileServer* FileServer::current_ = nullptr;

FileServer::FileServer(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  content_.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  if (content_.empty()) {
    std::fprintf(stderr, "soak_host: nothing to serve in %s\n", path.c_str());
    std::exit(1);
  }
  current_ = this;
}

int FileServer::Start() {
  const st::ServerAppCallbacks callbacks{OnConnect, OnStatus, OnRequest, OnData, OnWritten};
  st::stServer* servers = nullptr;
  const int code = st::StartServers(&callbacks, nullptr, kPort, &servers, &configuration_);
  const int port = servers == nullptr ? 0 : servers->port;
  st::FreeServerInfoList(servers);
  if (code != 0 || port == 0) Violation("StartServers gave " + std::to_string(code));
  return port;
}

void FileServer::Stop() { st::StopServers(configuration_); }

void FileServer::OnConnect(int, int, int) {}

void FileServer::OnStatus(int server, int session, int) {
  const std::lock_guard<std::mutex> lock(current_->mutex_);
  current_->sent_.erase({server, session});
}

void FileServer::OnRequest(int server, int session, st::ReqHeaderInfo* request, void* body,
                           unsigned int, bool) {
  st::FreeRequestHeader(request);
  st::Free(body);
  {
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    current_->sent_[{server, session}] = 0;
  }
  char close[] = "close";
  st::ResHeaderInfo response;
  st::InitializeResponseInfo(&response);
  response.http_version = st::HTTP_1_1;
  response.status_code = kStatusOk;
  response.connection = close;
  response.content_length = static_cast<long long>(current_->content_.size());
  st::SendHTTPResponse(server, session, &response, false);
}

void FileServer::OnData(int, int, void* data, unsigned int, bool) { st::Free(data); }

void FileServer::OnWritten(int server, int session, unsigned int) {
  const std::string& content = current_->content_;
  std::size_t first = 0, size = 0;
  {
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    const auto found = current_->sent_.find({server, session});
    if (found == current_->sent_.end()) return;
    first = found->second;
    size = std::min(kPiece, content.size() - first);
    found->second += size;
    if (found->second == content.size()) {
      current_->sent_.erase(found);
      ++counts.served;
    }
  }
  const bool final = first + size == content.size();
  // Only the last piece passes to the library; the others are lent to it.
  void* piece = const_cast<char*>(content.data()) + first;
  if (final) {
    piece = std::malloc(size);
    if (piece == nullptr) return;
    std::memcpy(piece, content.data() + first, size);
  }
  const int code =
      st::SendHTTPPayload(server, session, piece, static_cast<unsigned int>(size), final);
  if (final && code != 0) std::free(piece);
}

}  // namespace soak
