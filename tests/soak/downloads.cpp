#include "downloads.h"

#include <chrono>
#include <cstdio>

#include "report.h"

namespace soak {

namespace {

namespace st = vex_upnp::streaming;

constexpr std::size_t kMostWaiting = 8;
constexpr unsigned kStatusOk = 200;
// Far above what a fetch takes; a stopped device is waited for.
constexpr std::chrono::seconds kLongestFetch{60};
constexpr std::chrono::milliseconds kPause{500};

// Asks for one file and the end of the connection behind it.
class Request {
 public:
  Request(const std::string& host, const std::string& path) : host_(host), path_(path) {
    st::InitializeRequestHeaderInfo(&header_);
    header_.request_type = vex_upnp::utils::HTTP_GET;
    header_.http_version = st::HTTP_1_1;
    header_.uri = path_.data();
    header_.host = host_.data();
    header_.connection = close_.data();
  }
  const st::ReqHeaderInfo* header() const { return &header_; }

 private:
  std::string host_, path_, close_ = "close";
  st::ReqHeaderInfo header_;
};

}  // namespace

Downloads* Downloads::current_ = nullptr;

void Downloads::Start() {
  current_ = this;
  st::InitializeStreamingManager();
  thread_ = std::thread([this] { Run(); });
}

void Downloads::Stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  thread_.join();
  st::TerminateStreamingManager();
}

void Downloads::Add(const std::string& url, bool must_come) {
  char host[64] = "", path[256] = "";
  Wanted wanted;
  if (std::sscanf(url.c_str(), "http://%63[^:/]:%d%255s", host, &wanted.port, path) != 3) {
    Violation("no address: " + url);
    return;
  }
  wanted.host = host;
  wanted.path = path;
  wanted.must_come = must_come;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (waiting_.size() >= kMostWaiting) return;
  waiting_.push_back(wanted);
  changed_.notify_all();
}

void Downloads::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (unsigned number = 0;; ++number) {
    changed_.wait(lock, [this] { return ended_ || !waiting_.empty(); });
    if (ended_) return;
    const Wanted wanted = waiting_.front();
    waiting_.pop_front();
    state_ = State::kRunning;
    digest_ = Sha256();
    lock.unlock();
    const bool came = number % 2 == 0 ? FetchAsync(wanted) : FetchSync(wanted);
    const std::string digest = digest_.Finish();
    if (came) {
      ++counts.downloads;
      if (digest != expected_) Violation("a copy of " + wanted.path + " has digest " + digest);
    } else {
      ++counts.lost_downloads;
      if (wanted.must_come) Violation("no whole copy of " + wanted.path + " came");
    }
    lock.lock();
    changed_.wait_for(lock, kPause, [this] { return ended_; });
  }
}

void Downloads::Take(const void* data, std::size_t length, bool final) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kRunning) return;
  digest_.Add(data, length);
  if (final) End(State::kWhole);
}

void Downloads::End(State state) {
  if (state_ == State::kRunning) state_ = state;
  changed_.notify_all();
}

void Downloads::OnStatus(int, int, int) {
  const std::lock_guard<std::mutex> lock(current_->mutex_);
  current_->End(State::kFailed);
}

void Downloads::OnResponse(int, int, st::ResHeaderInfo* response, void* body, unsigned int length,
                           bool final) {
  if (response->status_code == kStatusOk) {
    current_->Take(body, length, final);
  } else {
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    current_->End(State::kFailed);
  }
  st::FreeResponseHeader(response);
  st::Free(body);
}

void Downloads::OnData(int, int, void* data, unsigned int length, bool final) {
  current_->Take(data, length, final);
  st::Free(data);
}

void Downloads::OnWritten(int, int, unsigned int) {}

bool Downloads::FetchAsync(const Wanted& wanted) {
  const st::ClientAppCallbacks callbacks{OnStatus, OnResponse, OnData, OnWritten};
  const Request request(wanted.host, wanted.path);
  int client = 0;
  // A request that finds its session gone has been told by on_status.
  if (st::StartClient(&callbacks, wanted.host.c_str(), wanted.port, &client) == 0)
    st::SendHTTPRequest(client, request.header());
  bool whole = false;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kLongestFetch, [this] { return ended_ || state_ != State::kRunning; });
    whole = state_ == State::kWhole;
    // What comes still belongs to nobody.
    End(State::kFailed);
  }
  st::StopClientTransfer(client);
  return whole;
}

bool Downloads::FetchSync(const Wanted& wanted) {
  const Request request(wanted.host, wanted.path);
  st::ResHeaderInfo* response = nullptr;
  void* data = nullptr;
  unsigned int length = 0;
  int client = 0;
  bool final = false;
  if (st::StartSyncClient(&client) != 0) return false;
  bool good = st::ConnectSyncClient(client, wanted.host.c_str(), wanted.port) == 0 &&
              st::SendSyncHTTPRequest(client, request.header()) == 0 &&
              st::ReadHTTPHeader(client, &response, &data, length, final) == 0 &&
              response->status_code == kStatusOk;
  while (good) {
    Take(data, length, final);
    st::Free(data);
    data = nullptr;
    if (final) break;
    good = st::ReadHTTPData(client, &data, length, final) == 0;
  }
  st::Free(data);
  st::FreeResponseHeader(response);
  st::StopClientTransfer(client);
  return good;
}

}  // namespace soak
