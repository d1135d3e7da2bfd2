// Fetches a file by HTTP with the asynchronous streaming client and counts its bytes.
//
//   stream_get ADDRESS PORT PATH [SECONDS]
//
// Nothing is asked of the connection, so a server may keep it open behind the body. The library
// then waits for a block that never fills: this host ends such a transfer after SECONDS (default
// 10).

#include <vexupnpcp/streaming.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

namespace st = vex_upnp::streaming;

// The callbacks are plain functions on the library's threads; this is what they fill.
struct Transfer {
  std::mutex mutex;
  std::condition_variable changed;
  unsigned status = 0;
  long long bytes = 0;
  bool whole = false;
  bool failed = false;
};
Transfer transfer;

void Add(unsigned length, bool final) {
  transfer.bytes += length;
  transfer.whole = final;
  transfer.changed.notify_all();
}

void OnStatus(int, int, int) {
  const std::lock_guard<std::mutex> lock(transfer.mutex);
  transfer.failed = true;
  transfer.changed.notify_all();
}

void OnResponse(int, int, st::ResHeaderInfo* response, void* body, unsigned int length,
                bool final) {
  const std::lock_guard<std::mutex> lock(transfer.mutex);
  transfer.status = response->status_code;
  Add(length, final);
  st::FreeResponseHeader(response);
  st::Free(body);
}

void OnData(int, int, void* data, unsigned int length, bool final) {
  const std::lock_guard<std::mutex> lock(transfer.mutex);
  Add(length, final);
  st::Free(data);
}

void OnWritten(int, int, unsigned int) {}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: stream_get ADDRESS PORT PATH [SECONDS]\n");
    return 2;
  }
  const std::chrono::seconds limit(argc > 4 ? std::atoi(argv[4]) : 10);
  const st::ClientAppCallbacks callbacks = {OnStatus, OnResponse, OnData, OnWritten};
  int client = 0;
  st::InitializeStreamingManager();
  int code = st::StartClient(&callbacks, argv[1], std::atoi(argv[2]), &client);
  if (code == 0) {
    st::ReqHeaderInfo request;
    st::InitializeRequestHeaderInfo(&request);
    request.request_type = vex_upnp::utils::HTTP_GET;
    request.http_version = st::HTTP_1_1;
    request.uri = argv[3];
    request.host = argv[1];
    code = st::SendHTTPRequest(client, &request);
  }
  {
    std::unique_lock<std::mutex> lock(transfer.mutex);
    if (code == 0) {
      transfer.changed.wait_for(lock, limit, [] { return transfer.whole || transfer.failed; });
    }
    std::printf("status %u, %lld bytes, %s\n", transfer.status, transfer.bytes,
                transfer.whole                 ? "whole"
                : transfer.failed || code != 0 ? "failed"
                                               : "stopped");
  }
  // Ends a transfer that is still running; an ended one is no fault.
  st::StopClientTransfer(client);
  st::TerminateStreamingManager();
  return transfer.whole ? 0 : 1;
}
