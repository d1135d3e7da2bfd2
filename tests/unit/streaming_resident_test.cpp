// The memory of a transfer does not grow with what is transferred.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>

#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/sanitizers.h"
#include "tests/support/serving_fixture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::MediaHost;
using vex_test::WaitUntil;

constexpr long long kMiB = 1024 * 1024;
constexpr unsigned int kPiece = 256 * 1024;

long long ResidentBytes() {
  long long all = 0;
  long long resident = 0;
  std::ifstream("/proc/self/statm") >> all >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

struct Transfer {
  std::atomic<long long> received{0};
  std::atomic<long long> most_resident{0};
  std::atomic<int> ended{0};
};
Transfer* transfer = nullptr;

void Take(void* block, unsigned int length, bool final) {
  Free(block);
  transfer->received += length;
  transfer->most_resident = std::max(transfer->most_resident.load(), ResidentBytes());
  if (final) ++transfer->ended;
}

constexpr ClientAppCallbacks kClient = {
    [](int, int, int) { ++transfer->ended; },
    [](int, int, ResHeaderInfo* response, void* body, unsigned int length, bool final) {
      FreeResponseHeader(response);
      Take(body, length, final);
    },
    [](int, int, void* data, unsigned int length, bool final) { Take(data, length, final); },
    [](int, int, unsigned int) {}};

class StreamingResident : public vex_test::ServingTest {
 protected:
  // Serves and loads so many bytes, and tells how much memory the process has held meanwhile.
  long long MostResident(long long bytes) {
    Transfer state;
    transfer = &state;
    std::atomic<long long> left{bytes};
    host_.DoOnRequest([bytes](const MediaHost::Request& request) {
      ResHeaderInfo ok = vex_test::Response(200);
      ok.content_length = bytes;
      SendHTTPResponse(request.server, request.session, &ok, false);
    });
    host_.DoOnWritten([&left](int server, int session, unsigned int) {
      static char piece[kPiece];
      left -= kPiece;
      if (left >= 0) SendHTTPPayload(server, session, piece, kPiece, false);
      if (left < 0) SendHTTPPayload(server, session, nullptr, 0, true);
    });
    if (servers_ == nullptr) Serve();
    ReqHeaderInfo get;
    InitializeRequestHeaderInfo(&get);
    get.request_type = utils::HTTP_GET;
    get.http_version = HTTP_1_1;
    get.uri = vex_test::Literal("/film");
    int id = 0;
    EXPECT_EQ(result::kOk, StartClient(&kClient, ip_.c_str(), port_, &id));
    EXPECT_EQ(result::kOk, SendHTTPRequest(id, &get));
    EXPECT_TRUE(WaitUntil([&] { return state.ended == 1; }, std::chrono::seconds(60)));
    EXPECT_EQ(bytes, state.received);
    // Nothing of it is called any more.
    EXPECT_TRUE(WaitUntil([] {
      stRunningSession* sessions = nullptr;
      EXPECT_EQ(result::kOk, GetRunningSessionInfo(&sessions));
      const bool none = sessions == nullptr;
      FreeRunningSession(sessions);
      return none;
    }));
    return state.most_resident;
  }
};

TEST_F(StreamingResident, MemoryDoesNotGrowWithTheFile) {
  if (vex_test::kUnderSanitizer) GTEST_SKIP() << "sanitizers keep what was freed";
  const long long small = MostResident(16 * kMiB);
  const long long large = MostResident(512 * kMiB);
  EXPECT_LT(large - small, 48 * kMiB);
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp
