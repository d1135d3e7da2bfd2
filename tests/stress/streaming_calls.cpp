// Media in both directions: the clients fetch from the devices and from the library's own servers,
// and the network fetches from those. Every byte that comes is looked at.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include <vexupnpcp/streaming.h>

#include "tests/stress/host_calls.h"
#include "tests/stress/stress_watch.h"

namespace vex_stress {
namespace {

using Call = Watchdog::Call;
namespace streaming = vex_upnp::streaming;

constexpr unsigned kPieces = 4;
constexpr unsigned kPiece = kServedBytes / kPieces;
constexpr unsigned kStatusOk = 200;

// One letter makes up every body.
bool IsMedia(const void* data, unsigned length) {
  const char* const bytes = static_cast<const char*>(data);
  return std::all_of(bytes, bytes + length, [](char c) { return c == kMediaLetter; });
}

void CheckMedia(const void* data, unsigned length) {
  if (length > 0 && !IsMedia(data, length)) Violation("other bytes than were sent");
}

std::string& Media() {
  static std::string media(kServedBytes, kMediaLetter);
  return media;
}

// What has come or gone of a transfer, by the ids of its callbacks.
class Transfers {
 public:
  using Key = std::pair<int, int>;
  void Begin(const Key& key) { Set(key, 0); }
  // How much of it there is with these bytes; begins it when there is none.
  unsigned Add(const Key& key, unsigned bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return bytes_[key] += bytes;
  }
  void End(const Key& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_.erase(key);
  }
  void Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_.clear();
  }

 private:
  void Set(const Key& key, unsigned bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_[key] = bytes;
  }
  std::mutex mutex_;
  std::map<Key, unsigned> bytes_;
};
Transfers fetched, uploaded, served;

// The last payload passes to the library, others stay the host's.
bool SendMedia(int server_or_handler, int session, unsigned bytes, bool final) {
  if (!final)
    return streaming::SendHTTPPayload(server_or_handler, session, Media().data(), bytes, false) ==
           0;
  void* const last = std::malloc(bytes);
  std::memset(last, kMediaLetter, bytes);
  if (streaming::SendHTTPPayload(server_or_handler, session, last, bytes, true) == 0) return true;
  std::free(last);
  return false;
}

// Asynchronous clients.
void OnClientStatus(int, int client, int) {
  fetched.End({0, client});
  uploaded.End({0, client});
  Counts::Add("streaming client: failed");
}

void TakeMedia(int client, void* data, unsigned length, bool final) {
  CheckMedia(data, length);
  streaming::Free(data);
  const unsigned all = fetched.Add({0, client}, length);
  if (!final) return;
  fetched.End({0, client});
  if (all == kMediaBytes || all == kServedBytes) Counts::Add("streaming client: whole");
}

void OnClientResponse(int, int client, streaming::ResHeaderInfo* response, void* body,
                      unsigned length, bool final) {
  std::string value;
  streaming::GetResponseAdditionalHeaders(response->additional_headers, "X-Stress", value);
  streaming::FreeResponseHeader(response);
  Counts::Add("streaming client: response");
  TakeMedia(client, body, length, final);
}

void OnClientData(int, int client, void* data, unsigned length, bool final) {
  TakeMedia(client, data, length, final);
}

// Goes on with what a POST carries; a GET has no body.
void OnClientWritten(int handler, int client, unsigned length) {
  const unsigned all = uploaded.Add({0, client}, length);
  if (all >= kMediaBytes) {
    uploaded.End({0, client});
    Counts::Add("streaming client: body written");
    return;
  }
  const unsigned half = kMediaBytes / 2;
  SendMedia(handler, client, half, all >= half);
}

void OnGetWritten(int, int, unsigned) {}

// Servers.
void OnConnect(int, int, int) {}

void OnServerStatus(int server, int session, int) {
  served.End({server, session});
  Counts::Add(session == 0 ? "streaming server: interface" : "streaming server: connection lost");
}

void Respond(int server, int session, bool has_body) {
  char close[] = "close";
  streaming::ResHeaderInfo response;
  streaming::InitializeResponseInfo(&response);
  response.http_version = streaming::HTTP_1_1;
  response.status_code = kStatusOk;
  response.connection = close;
  if (has_body) response.content_length = kServedBytes;
  streaming::SendHTTPResponse(server, session, &response, !has_body);
}

void OnRequest(int server, int session, streaming::ReqHeaderInfo* request, void* body,
               unsigned length, bool final) {
  const bool get = request->request_type == vex_upnp::utils::HTTP_GET;
  streaming::UnEscapeURI(request->uri);
  streaming::FreeRequestHeader(request);
  CheckMedia(body, length);
  streaming::Free(body);
  Counts::Add("streaming server: requests");
  if (get) {
    served.Begin({server, session});
    Respond(server, session, true);
  } else if (final) {
    Respond(server, session, false);
  }
}

void OnServerData(int server, int session, void* data, unsigned length, bool final) {
  CheckMedia(data, length);
  streaming::Free(data);
  if (!final) return;
  Counts::Add("streaming server: whole body taken");
  Respond(server, session, false);
}

// The last piece is told by nothing but the end of the connection.
void OnServed(int server, int session, unsigned length) {
  const unsigned all = served.Add({server, session}, length);
  const bool last = all + kPiece >= kServedBytes;
  if (last) served.End({server, session});
  if (SendMedia(server, session, kPiece, last) && last)
    Counts::Add("streaming server: body handed over");
}

const streaming::ServerAppCallbacks kServer = {&OnConnect, &OnServerStatus, &OnRequest,
                                               &OnServerData, &OnServed};
const streaming::ClientAppCallbacks kFetcher = {&OnClientStatus, &OnClientResponse, &OnClientData,
                                                &OnGetWritten};
const streaming::ClientAppCallbacks kUploader = {&OnClientStatus, &OnClientResponse, &OnClientData,
                                                 &OnClientWritten};

// A request record with texts of its own.
struct Request {
  Request(vex_upnp::utils::HTTPRequest type, long long length) {
    streaming::InitializeRequestHeaderInfo(&header);
    header.request_type = type;
    header.http_version = streaming::HTTP_1_1;
    header.uri = uri;
    header.connection = close;
    header.content_length = length;
  }
  char uri[16] = "/media%20x";
  char close[8] = "close";
  streaming::ReqHeaderInfo header;
};

}  // namespace

void ForgetTransfers() {
  fetched.Clear();
  uploaded.Clear();
  served.Clear();
}

// A device, or one of the library's own servers.
std::pair<std::string, int> HostThread::AnySource() {
  if (Dice(2) == 0) return {AnyDevice().ip(), AnyDevice().port()};
  return {"10.77.0.1", kMediaPort + static_cast<int>(Dice(kHostThreads))};
}

void HostThread::Fetch() {
  const auto [ip, port] = AnySource();
  int id = 0;
  const Call call("streaming client");
  const int begun = streaming::StartClient(&kFetcher, ip.c_str(), port, &id);
  const Request request(vex_upnp::utils::HTTP_GET, 0);
  if (begun == 0) streaming::SendHTTPRequest(id, &request.header);
  if (begun == 0 && Dice(3) != 0) return;
  streaming::StopClientTransfer(id);
  fetched.End({0, id});
}

void HostThread::Upload() {
  const auto [ip, port] = AnySource();
  int id = 0;
  const Call call("streaming client with a body");
  const int begun = streaming::StartClient(&kUploader, ip.c_str(), port, &id);
  const Request request(vex_upnp::utils::HTTP_POST, kMediaBytes);
  if (begun == 0) streaming::SendHTTPRequest(id, &request.header);
  if (begun == 0 && Dice(3) != 0) return;
  streaming::StopClientTransfer(id);
  uploaded.End({0, id});
}

void HostThread::FetchSync() {
  const auto [ip, port] = AnySource();
  const bool with_body = Dice(3) == 0;
  const Request request(with_body ? vex_upnp::utils::HTTP_POST : vex_upnp::utils::HTTP_GET,
                        with_body ? kMediaBytes : 0);
  streaming::ResHeaderInfo* response = nullptr;
  void* data = nullptr;
  unsigned length = 0, all = 0;
  bool final = false;
  int id = 0;
  const Call call("synchronous streaming client");
  if (streaming::StartSyncClient(&id) != 0) return;
  bool good = streaming::ConnectSyncClient(id, ip.c_str(), port) == 0 &&
              streaming::SendSyncHTTPRequest(id, &request.header) == 0;
  if (good && with_body)
    good = streaming::SendSyncHTTPPayload(id, Media().data(), kMediaBytes, true) == 0;
  good = good && streaming::ReadHTTPHeader(id, &response, &data, length, final) == 0;
  streaming::FreeResponseHeader(response);
  while (good) {
    CheckMedia(data, length);
    all += length;
    streaming::Free(data);
    data = nullptr;
    if (final) break;
    good = streaming::ReadHTTPData(id, &data, length, final) == 0;
  }
  streaming::Free(data);
  streaming::StopClientTransfer(id);
  if (good && !with_body && (all == kMediaBytes || all == kServedBytes))
    Counts::Add("synchronous streaming client: whole");
}

// One set of servers for each thread, which comes and goes.
void HostThread::Serve() {
  const Call call("streaming servers");
  if (media_configuration_ != 0 && Dice(4) == 0) {
    streaming::StopServers(media_configuration_);
    media_configuration_ = 0;
  }
  if (media_configuration_ != 0) {
    int port = 0;
    streaming::GetStreamingServerPort(media_configuration_, "10.77.0.1", &port);
    return;
  }
  streaming::stServer* servers = nullptr;
  if (streaming::StartServers(&kServer, Dice(2) == 0 ? "10.77.0.1" : nullptr, kMediaPort + slot_,
                              &servers, &media_configuration_) != 0) {
    media_configuration_ = 0;
    return;
  }
  for (const streaming::stServer* server = servers; server != nullptr; server = server->next) {
    streaming::FreeServerInfoList(streaming::GetConfiguredServers(server->server_id));
    media_server_ = server->server_id;
  }
  streaming::FreeServerInfoList(servers);
}

void HostThread::AskStreaming() {
  const Call call("streaming sessions");
  streaming::stRunningSession* sessions = nullptr;
  if (streaming::GetRunningSessionInfo(&sessions) == 0) streaming::FreeRunningSession(sessions);
  // Somebody's connection ends in the middle, perhaps.
  constexpr unsigned kSessions = 200;
  const int session = static_cast<int>(Dice(kSessions));
  streaming::StopServerTransfer(media_server_, session);
  served.End({media_server_, session});
  // One reference more, and back.
  if (streaming::InitializeStreamingManager() == 0) streaming::TerminateStreamingManager();
}

}  // namespace vex_stress
