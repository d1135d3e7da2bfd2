#include <vexupnpcp/streaming.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>
#include "src/streaming_manager.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/log_capture.h"
#include "tests/support/thread_count.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace streaming {
namespace {

using vex_test::LogCapture;

constexpr char kTag[] = "VEX_CORE_STREAMING";

// The references outlive the manager, so each test brings them back to 0 and ends the manager.
class StreamingTest : public testing::Test {
 protected:
  StreamingTest() { network_layer::InitializeNetworkLayer(); }
  ~StreamingTest() override {
    StreamingManager::DestroyInstance();
    network_layer::TerminateNetworkLayer();
  }
};

TEST_F(StreamingTest, TheLastReferenceEndsTheManager) {
  ASSERT_EQ(0, InitializeStreamingManager());
  ASSERT_EQ(0, InitializeStreamingManager());
  const boost::weak_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  LogCapture log;
  EXPECT_EQ(0, TerminateStreamingManager());
  EXPECT_EQ(1, log.Count(4, kTag, "StreamingManager::DeleteReference Ref Count [1]"));
  EXPECT_EQ(1, log.Count(4, kTag, "StreamingManager::DestroyInstance Ref Count [1]"));
  EXPECT_EQ(0, log.Count("Stopping streaming threads"));
  EXPECT_FALSE(manager.expired());
  log.Clear();
  EXPECT_EQ(0, TerminateStreamingManager());
  EXPECT_EQ(1, log.Count(4, kTag, "StreamingManager::DeleteReference Ref Count [0]"));
  EXPECT_EQ(1, log.Count(4, kTag, "Stopping streaming threads"));
  EXPECT_EQ(1, log.Count(4, kTag, "StreamingManager::DestroyInstance Ref Count [0]"));
  EXPECT_TRUE(manager.expired());
}

TEST_F(StreamingTest, KeptASurplusTerminateCountsBelowZeroAndEndsTheManager) {
  const boost::weak_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  {
    LogCapture log;
    EXPECT_EQ(0, TerminateStreamingManager());
    EXPECT_EQ(1, log.Count("StreamingManager::DeleteReference Ref Count [-1]"));
    EXPECT_EQ(0, log.Count("Stopping streaming threads"));
    EXPECT_EQ(1, log.Count("StreamingManager::DestroyInstance Ref Count [-1]"));
  }
  EXPECT_TRUE(manager.expired());
  // The next reference only makes up for it.
  EXPECT_EQ(0, InitializeStreamingManager());
  LogCapture log;
  StreamingManager::DestroyInstance();
  EXPECT_EQ(1, log.Count("StreamingManager::DestroyInstance Ref Count [0]"));
}

TEST_F(StreamingTest, WhoWorksOnTheManagerKeepsItThroughItsEnd) {
  ASSERT_EQ(0, InitializeStreamingManager());
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  EXPECT_EQ(0, TerminateStreamingManager());
  stRunningSession* sessions = nullptr;
  EXPECT_EQ(0, manager->GetRunningSessionInfo(&sessions));
  EXPECT_NE(manager, StreamingManager::GetInstance());
}

TEST_F(StreamingTest, APoolOfNoneHasTwentyThreads) {
  const auto running = [] {
    const std::vector<std::string> names = vex_test::ThreadNames();
    return std::count_if(names.begin(), names.end(), [](const std::string& name) {
      return name.find("VexStrmIo") != std::string::npos;
    });
  };
  ASSERT_EQ(0, InitializeStreamingManager());
  const boost::shared_ptr<StreamingManager> manager = StreamingManager::GetInstance();
  EXPECT_EQ(0, manager->ConfigureStreamingThreads(0, true));
  EXPECT_EQ(20, running());
  EXPECT_EQ(0, manager->ConfigureStreamingThreads(0, false));
  EXPECT_TRUE(vex_test::WaitUntil([&] { return running() == 0; }));
  EXPECT_EQ(0, manager->ConfigureStreamingThreads(3, true));
  EXPECT_EQ(3, running());
  EXPECT_EQ(0, TerminateStreamingManager());
}

TEST_F(StreamingTest, WithoutSessionsTheListIsEmpty) {
  stRunningSession untouched = {};
  stRunningSession* sessions = &untouched;
  EXPECT_EQ(0, GetRunningSessionInfo(&sessions));
  EXPECT_EQ(nullptr, sessions);
  const LogCapture log;
  EXPECT_EQ(result::kStreamingInvalidParams, GetRunningSessionInfo(nullptr));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid params."));
}

TEST_F(StreamingTest, ChainsAreFreedWhole) {
  FreeRunningSession(nullptr);
  stRunningSession* const second =
      static_cast<stRunningSession*>(std::calloc(1, sizeof(stRunningSession)));
  stRunningSession* const first =
      static_cast<stRunningSession*>(std::calloc(1, sizeof(stRunningSession)));
  first->ip = strdup("10.77.0.2");
  first->next = second;
  FreeRunningSession(first);
}

// Without a network layer: the strand that Asio 1.74 makes for a listener frees what it has not set
// when its memory fails.
TEST(Streaming, WithoutMemoryThereIsNoManager) {
  int code = 0;
  int failures = 0;
  vex_test::EachAllocationFails([&] { code = InitializeStreamingManager(); },
                                [&](bool failed) {
                                  failures += failed ? 1 : 0;
                                  EXPECT_EQ(failed && code != 0 ? 1001 : 0, code);
                                  if (code == 0) TerminateStreamingManager();
                                });
  EXPECT_GT(failures, 0);
  const vex_test::FailAlloc fail(1);
  EXPECT_EQ(1002, TerminateStreamingManager());
}

TEST(Streaming, AListenerThatCannotBeRegisteredIsOnlyLogged) {
  LogCapture log;
  EXPECT_EQ(0, InitializeStreamingManager());
  EXPECT_EQ(1, log.Count(16, kTag, "Register Network Event Listener failed."));
  EXPECT_EQ(0, TerminateStreamingManager());
}

}  // namespace
}  // namespace streaming
}  // namespace vex_upnp
