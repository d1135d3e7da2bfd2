#include "download.h"

#include <vexupnpcp/result_codes.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "exit_status.h"

namespace vexcp {

namespace {

namespace st = vex_upnp::streaming;
using vex_upnp::utils::HTTP_GET;

constexpr unsigned kOk = 200;
constexpr unsigned kPartialContent = 206;

// The records take plain strings, which the library only reads.
char* Lend(const std::string& text) { return const_cast<char*>(text.c_str()); }

std::string Header(const st::ResHeaderInfo& response, const char* name) {
  std::string value;
  st::GetResponseAdditionalHeaders(response.additional_headers, name, value);
  return value;
}

}  // namespace

Download* Download::current_ = nullptr;

Download::Download(EventQueue& events, int file, st::HTTPVersion version)
    : events_(events), file_(file), version_(version) {
  current_ = this;
  st::InitializeStreamingManager();
}

Download::~Download() {
  Stop();
  // Joins the library's threads: no callback is running any more.
  st::TerminateStreamingManager();
  current_ = nullptr;
}

void Download::Start(const HttpUrl& url, long long offset, bool may_restart) {
  Stop();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    progress_ = Progress();
    progress_.done = offset;
    offset_ = offset;
    may_restart_ = may_restart;
    range_end_.reset();
  }
  const st::ClientAppCallbacks callbacks{OnStatus, OnResponse, OnData, OnWritten};
  const int code = st::StartClient(&callbacks, url.host.c_str(), url.port, &client_);
  if (code == vex_upnp::result::kStreamingConnectFailed)
    throw Failure(kRefused, url.host + " cannot be reached: there is no such host");
  if (code != 0)
    throw Failure(kRefused,
                  url.host + " cannot be reached (StartClient gave " + std::to_string(code) + ")");
  const std::string authority = url.Authority(), range = "bytes=" + std::to_string(offset) + "-",
                    close = "close", any = "*/*", agent = "vexcp/1.0", range_name = "Range";
  st::stArgument range_header{Lend(range_name), Lend(range), nullptr};
  st::ReqHeaderInfo request;
  st::InitializeRequestHeaderInfo(&request);
  request.request_type = HTTP_GET;
  request.http_version = version_;
  request.uri = Lend(url.target);
  request.host = Lend(authority);
  request.accept = Lend(any);
  request.user_agent = Lend(agent);
  // The library waits for whole blocks: a connection that stays open would leave it waiting.
  request.connection = Lend(close);
  if (offset > 0) request.additional_headers = &range_header;
  // A client whose connection has failed already is gone; its callback has told.
  st::SendHTTPRequest(client_, &request);
}

void Download::Stop() {
  if (client_ != 0) st::StopClientTransfer(client_);
  client_ = 0;
}

Download::Progress Download::progress() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return progress_;
}

void Download::End(State state) {
  if (progress_.state != State::kRunning) return;
  progress_.state = state;
  // Any event wakes the main thread, which then looks at the progress.
  events_.Push({DeviceEvent::Kind::kActionEnded, {}, {}, {}, 0, 0, {}});
}

void Download::OnStatus(int, int, int code) {
  const std::lock_guard<std::mutex> lock(current_->mutex_);
  current_->End(code == st::STREAMING_PARSE_FAILED ? State::kNoHttp : State::kBrokenOff);
}

void Download::OnResponse(int, int client, ResHeaderInfo* response, void* body, unsigned int length,
                          bool final) {
  bool stop = false;
  {
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    current_->TakeResponse(*response);
    current_->TakeBytes(body, length, final);
    stop = current_->progress_.state != State::kRunning;
  }
  st::FreeResponseHeader(response);
  st::Free(body);
  if (stop) st::StopClientTransfer(client);
}

void Download::OnData(int, int client, void* data, unsigned int length, bool final) {
  bool stop = false;
  {
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    current_->TakeBytes(data, length, final);
    stop = current_->progress_.state != State::kRunning;
  }
  st::Free(data);
  if (stop) st::StopClientTransfer(client);
}

void Download::TakeResponse(const ResHeaderInfo& response) {
  progress_.status = response.status_code;
  progress_.location = Header(response, "Location");
  if (response.status_code == kPartialContent) {
    TakePartial(response);
    return;
  }
  if (response.status_code != kOk) {
    const std::string range = Header(response, "Content-Range");
    long long size = 0;
    const bool told = std::sscanf(range.c_str(), "bytes */%lld", &size) == 1;
    End(told && !TakeLength(size) ? State::kChanged : State::kRefused);
    return;
  }
  if (may_restart_ ? !CutFile(0) : offset_ > 0) {
    End(State::kOtherRange);
    return;
  }
  // Nothing of what came before is left.
  progress_.done = 0;
  length_.reset();
  if (response.content_length > 0) TakeLength(response.content_length);
}

void Download::TakePartial(const ResHeaderInfo& response) {
  const std::string range = Header(response, "Content-Range");
  long long first = -1, last = -1, size = -1;
  const int read = std::sscanf(range.c_str(), "bytes %lld-%lld/%lld", &first, &last, &size);
  if (read < 2 || first != offset_ || last < first || (read == 3 && size <= last)) {
    End(State::kOtherRange);
    return;
  }
  // A server may leave the length open; then what it gives without a limit asked for is the rest.
  if (read == 3 && !TakeLength(size)) {
    End(State::kChanged);
    return;
  }
  if (may_restart_ && !CutFile(offset_)) {
    End(State::kOtherRange);
    return;
  }
  range_end_ = last + 1;
  progress_.total = length_ ? length_ : range_end_;
}

// False when an earlier answer has told another one.
bool Download::TakeLength(long long length) {
  if (length_ && *length_ != length) return false;
  length_ = length;
  progress_.total = length;
  return true;
}

// What a file held before goes only when there is something to put in its place. A device or a pipe
// cannot be cut.
bool Download::CutFile(long long size) {
  struct stat info {};
  if (fstat(file_, &info) == 0 && !S_ISREG(info.st_mode)) return size == progress_.done;
  return ftruncate(file_, size) == 0 && lseek(file_, size, SEEK_SET) == size;
}

void Download::TakeBytes(const void* bytes, unsigned int length, bool final) {
  if (progress_.state != State::kRunning) return;
  if (length > 0 && !StoreAll(static_cast<const char*>(bytes), length)) {
    progress_.error = errno;
    End(State::kNotStored);
    return;
  }
  progress_.done += length;
  if (final) End(WhatHasCome());
}

Download::State Download::WhatHasCome() const {
  if (!progress_.total || progress_.done == *progress_.total) return State::kComplete;
  return progress_.done == range_end_ ? State::kPartDone : State::kBrokenOff;
}

bool Download::StoreAll(const char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t stored = write(file_, bytes, length);
    if (stored < 0 && errno == EINTR) continue;
    if (stored <= 0) return false;
    bytes += stored;
    length -= static_cast<std::size_t>(stored);
  }
  return true;
}

}  // namespace vexcp
