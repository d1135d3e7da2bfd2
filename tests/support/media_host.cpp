#include "tests/support/media_host.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "tests/support/no_failures.h"
#include "tests/support/stumble.h"
#include "tests/support/wait_until.h"

namespace vex_test {

using vex_upnp::streaming::Free;
using vex_upnp::streaming::FreeRequestHeader;
using vex_upnp::streaming::ReqHeaderInfo;
using vex_upnp::streaming::ResHeaderInfo;
using vex_upnp::streaming::ServerAppCallbacks;

namespace {

MediaHost* current = nullptr;

std::string Ids(const char* what, int server, int session) {
  return std::string(what) + " " + std::to_string(server) + " " + std::to_string(session) + " ";
}

std::string Text(const void* block, unsigned int length) {
  return block == nullptr ? std::string() : std::string(static_cast<const char*>(block), length);
}

}  // namespace

MediaHost::MediaHost() { current = this; }
MediaHost::~MediaHost() { current = nullptr; }

const ServerAppCallbacks* MediaHost::callbacks() {
  static const ServerAppCallbacks table = {OnConnect, OnStatus, OnRequest, OnData, OnWritten};
  return &table;
}

void MediaHost::OnConnect(int server, int session, int reserved) {
  std::optional<NoFailures> own_work(std::in_place);
  {
    const std::lock_guard<std::mutex> lock(current->mutex_);
    current->last_session_ = session;
  }
  const ConnectAction act =
      current->Keep(current->on_connect_,
                    Ids("connect", server, session) + std::to_string(reserved), std::string());
  own_work.reset();
  if (act) act(server, session);
}

void MediaHost::OnStatus(int server, int session, int code) {
  std::optional<NoFailures> own_work(std::in_place);
  const StatusAction act = current->Keep(
      current->on_status_, Ids("status", server, session) + std::to_string(code), std::string());
  own_work.reset();
  if (act) act(server, session, code);
}

void MediaHost::OnRequest(int server, int session, ReqHeaderInfo* header, void* body,
                          unsigned int length, bool final) {
  std::optional<NoFailures> own_work(std::in_place);
  const Request got{server, session, *header, Text(body, length), final};
  const RequestAction act = current->Keep(
      current->on_request_,
      Ids("request", server, session) + (header->uri == nullptr ? "(none)" : header->uri) + " " +
          std::to_string(length) + (final ? " final" : ""),
      got.body);
  own_work.reset();
  if (act) act(got);
  FreeRequestHeader(header);
  Free(body);
}

void MediaHost::OnData(int server, int session, void* data, unsigned int length, bool final) {
  std::optional<NoFailures> own_work(std::in_place);
  const Data got{server, session, Text(data, length), final};
  Free(data);
  const DataAction act = current->Keep(
      current->on_data_,
      Ids("data", server, session) + std::to_string(length) + (final ? " final" : ""), got.bytes);
  own_work.reset();
  if (act) act(got);
}

void MediaHost::OnWritten(int server, int session, unsigned int length) {
  std::optional<NoFailures> own_work(std::in_place);
  const WrittenAction act =
      current->Keep(current->on_written_, Ids("written", server, session) + std::to_string(length),
                    std::string());
  own_work.reset();
  if (act) act(server, session, length);
}

std::vector<std::string> MediaHost::Events() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

int MediaHost::Count(const std::string& event) const {
  const std::vector<std::string> events = Events();
  return static_cast<int>(std::count(events.begin(), events.end(), event));
}

bool MediaHost::Await(const std::string& event) const {
  return WaitUntil([&] { return Count(event) > 0; });
}

std::string MediaHost::Body() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return body_;
}

int MediaHost::LastSession() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return last_session_;
}

ResHeaderInfo Response(unsigned int status) {
  ResHeaderInfo response;
  vex_upnp::streaming::InitializeResponseInfo(&response);
  response.http_version = vex_upnp::streaming::HTTP_1_1;
  response.status_code = status;
  return response;
}

void* MallocCopy(const std::string& bytes) {
  void* const block = std::malloc(bytes.size() + 1);
  if (block == nullptr) std::abort();
  std::memcpy(block, bytes.data(), bytes.size());
  return block;
}

}  // namespace vex_test
