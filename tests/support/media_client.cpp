#include "tests/support/media_client.h"

#include <algorithm>

#include "tests/support/no_failures.h"
#include "tests/support/stumble.h"
#include "tests/support/wait_until.h"

namespace vex_test {

using vex_upnp::streaming::ClientAppCallbacks;
using vex_upnp::streaming::Free;
using vex_upnp::streaming::FreeResponseHeader;
using vex_upnp::streaming::ReqHeaderInfo;
using vex_upnp::streaming::ResHeaderInfo;

namespace {

constexpr char kFinal[] = " final";

MediaClient* current = nullptr;

std::string Ids(const char* what, int handler, int client) {
  return std::string(what) + " " + std::to_string(handler) + " " + std::to_string(client) + " ";
}

std::string Length(unsigned int length, bool final) {
  return std::to_string(length) + (final ? kFinal : "");
}

bool IsFinal(const std::string& event) {
  const std::string end = kFinal;
  return event.size() > end.size() &&
         event.compare(event.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

MediaClient::MediaClient() { current = this; }
MediaClient::~MediaClient() { current = nullptr; }

const ClientAppCallbacks* MediaClient::callbacks() {
  static const ClientAppCallbacks table = {OnStatus, OnResponse, OnData, OnWritten};
  return &table;
}

void MediaClient::OnStatus(int handler, int client, int code) {
  const NoFailures no_failures;
  current->Keep(Ids("status", handler, client) + std::to_string(code), nullptr, 0);
}

void MediaClient::OnResponse(int handler, int client, ResHeaderInfo* response, void* body,
                             unsigned int length, bool final) {
  const NoFailures no_failures;
  const std::string status = std::to_string(response->status_code);
  current->Keep(Ids("response", handler, client) + status + " " + Length(length, final), body,
                length);
  FreeResponseHeader(response);
  Free(body);
}

void MediaClient::OnData(int handler, int client, void* data, unsigned int length, bool final) {
  const NoFailures no_failures;
  current->Keep(Ids("data", handler, client) + Length(length, final), data, length);
  Free(data);
}

void MediaClient::OnWritten(int handler, int client, unsigned int length) {
  const NoFailures no_failures;
  current->Keep(Ids("written", handler, client) + std::to_string(length), nullptr, 0);
}

void MediaClient::Keep(const std::string& event, const void* body, unsigned int length) {
  const StumblingLock lock(mutex_);
  events_.push_back(event);
  if (body != nullptr) body_.append(static_cast<const char*>(body), length);
}

std::vector<std::string> MediaClient::Events() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

int MediaClient::Count(const std::string& event) const {
  const std::vector<std::string> events = Events();
  return static_cast<int>(std::count(events.begin(), events.end(), event));
}

bool MediaClient::Await(const std::string& event, int times) const {
  return WaitUntil([&] { return Count(event) >= times; });
}

bool MediaClient::AwaitFinal() const {
  return WaitUntil([&] {
    const std::vector<std::string> events = Events();
    return std::any_of(events.begin(), events.end(), IsFinal);
  });
}

std::string MediaClient::Body() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return body_;
}

ReqHeaderInfo MediaRequest(vex_upnp::utils::HTTPRequest type, const char* target) {
  ReqHeaderInfo request;
  vex_upnp::streaming::InitializeRequestHeaderInfo(&request);
  request.request_type = type;
  request.http_version = vex_upnp::streaming::HTTP_1_1;
  request.uri = const_cast<char*>(target);
  return request;
}

}  // namespace vex_test
