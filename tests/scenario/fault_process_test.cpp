// A device that is a process of its own stops in the middle of everything, as one that hangs or
// sleeps does: its connections are taken by its kernel and nobody answers. Whatever waits for it
// ends in its time, a device of another process notices nothing, and once it goes on it works.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/hostile_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/media_host.h"
#include "tests/support/remote_host.h"
#include "tests/support/ssdp_peer.h"
#include "tests/support/still_works.h"
#include "tests/support/tcp_table.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

extern char** environ;

namespace {

using vex_test::HostLog;
using vex_test::RemoteHost;
using vex_test::ToldAction;
using vex_test::ToldDevice;
using vex_test::ToldEvent;
using vex_test::WaitUntil;
namespace streaming = vex_upnp::streaming;

constexpr char kNear[] = "10.78.0.1";
constexpr char kFar[] = "10.78.0.2";
constexpr char kService[] = "SwitchPower";

// What stands in `text` between two marks; empty without them.
std::string Between(const std::string& text, const std::string& before, const std::string& after) {
  const std::size_t begin = text.find(before);
  if (begin == std::string::npos) return std::string();
  const std::size_t from = begin + before.size();
  const std::size_t end = text.find(after, from);
  return end == std::string::npos ? std::string() : text.substr(from, end - from);
}

// One simulated device in a process of its own on the other host.
class Simulator {
 public:
  Simulator(RemoteHost& host, const std::string& folder, const std::string& seed) : host_(host) {
    const std::vector<std::string> words = {VEX_BINARY_DIR "/vexsim",
                                            "--json",
                                            "--close",
                                            "--exit-with-stdin",
                                            "--seed",
                                            seed,
                                            "--interface",
                                            "flap0p",
                                            "--no-announce",
                                            "--silent-exit",
                                            folder};
    host_.Run([&] { Spawn(words); });
    if (ReadLine().find("\"ready\"") == std::string::npos) {
      throw std::runtime_error("the simulator is not ready");
    }
    const std::string list = Ask("list");
    udn_ = Between(list, "\"udns\":[\"", "\"");
    location_ = Between(list, "\"locations\":[\"", "\"");
    port_ = std::stoi(Between(list, "\"port\":", ","));
  }
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;
  ~Simulator() {
    ::kill(process_, SIGCONT);
    ::close(input_);
    if (!WaitUntil([this] { return ::waitpid(process_, nullptr, WNOHANG) == process_; })) {
      ADD_FAILURE() << "the simulator does not end";
      ::kill(process_, SIGKILL);
      ::waitpid(process_, nullptr, 0);
    }
    ::close(output_);
  }

  const std::string& udn() const { return udn_; }
  std::string name() const { return udn_ + "+flap0"; }
  int port() const { return port_; }
  std::string PathOf(const std::string& file) const {
    const std::size_t path = location_.find('/', std::string("http://").size());
    return location_.substr(path, location_.rfind('/') - path + 1) + file;
  }

  std::string Ask(const std::string& command) {
    const std::string line = command + "\n";
    EXPECT_EQ(static_cast<ssize_t>(line.size()), ::write(input_, line.data(), line.size()));
    return ReadLine();
  }
  void SayAlive() {
    host_.Send(kNear, 5300,
               vex_test::AliveDatagram(udn_ + "::upnp:rootdevice", "upnp:rootdevice", location_));
  }

  void Freeze() {
    int status = 0;
    ASSERT_EQ(0, ::kill(process_, SIGSTOP));
    ASSERT_EQ(process_, ::waitpid(process_, &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));
  }
  void Thaw() {
    int status = 0;
    ASSERT_EQ(0, ::kill(process_, SIGCONT));
    ASSERT_EQ(process_, ::waitpid(process_, &status, WCONTINUED));
  }
  // Whether so many connections have come that it has not taken; waits for them. A frozen process
  // takes none, so they count what was asked of it since.
  bool IsAskedTimes(int times) {
    return WaitUntil([&] {
      int waiting = 0;
      host_.Run([&] { waiting = Backlog(); });
      return waiting >= times;
    });
  }

 private:
  void Spawn(const std::vector<std::string>& words) {
    std::array<int, 2> in;
    std::array<int, 2> out;
    if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipes");
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    started_ = ::posix_spawn(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  std::string ReadLine() {
    if (started_ != 0) throw std::runtime_error("no simulator at " VEX_BINARY_DIR);
    for (std::size_t end = read_.find('\n'); end == std::string::npos; end = read_.find('\n')) {
      pollfd readable = {output_, POLLIN, 0};
      char piece[4096];
      const ssize_t bytes =
          ::poll(&readable, 1, 20000) == 1 ? ::read(output_, piece, sizeof(piece)) : 0;
      if (bytes <= 0) throw std::runtime_error("the simulator says nothing");
      read_.append(piece, static_cast<std::size_t>(bytes));
    }
    const std::string line = read_.substr(0, read_.find('\n'));
    read_.erase(0, line.size() + 1);
    return line;
  }
  // On the other host.
  int Backlog() const {
    for (const vex_test::TcpRow& row : vex_test::TcpTable()) {
      if (row.listening && row.local_port == port_) return static_cast<int>(row.unread);
    }
    return -1;
  }

  RemoteHost& host_;
  pid_t process_ = -1;
  int started_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string read_;
  std::string udn_;
  std::string location_;
  int port_ = 0;
};

// The one download of a test.
class Download {
 public:
  static Download& Get() {
    static Download download;
    return download;
  }
  static void Begin(const Simulator& from, int& client) {
    Get().Clear();
    static const streaming::ClientAppCallbacks table = {OnStatus, OnResponse, OnData, OnWritten};
    ASSERT_EQ(0, streaming::StartClient(&table, kFar, from.port(), &client));
    const std::string path = from.PathOf("media/tone.wav");
    streaming::ReqHeaderInfo request;
    streaming::InitializeRequestHeaderInfo(&request);
    request.request_type = vex_upnp::utils::HTTP_GET;
    request.http_version = streaming::HTTP_1_1;
    request.uri = const_cast<char*>(path.c_str());
    const std::string host = std::string(kFar) + ":" + std::to_string(from.port());
    request.host = const_cast<char*>(host.c_str());
    ASSERT_EQ(0, streaming::SendHTTPRequest(client, &request));
  }
  std::string body() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return body_;
  }
  int responses() const { return responses_; }
  int finals() const { return finals_; }
  int failures() const { return failures_; }

 private:
  void Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    body_.clear();
    responses_ = 0;
    finals_ = 0;
    failures_ = 0;
  }
  void Add(void* data, unsigned int length, bool final) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (data != nullptr) body_.append(static_cast<const char*>(data), length);
    streaming::Free(data);
    if (final) ++finals_;
  }
  static void OnStatus(int, int, int) { ++Get().failures_; }
  static void OnResponse(int, int, streaming::ResHeaderInfo* response, void* body,
                         unsigned int length, bool final) {
    streaming::FreeResponseHeader(response);
    Get().Add(body, length, final);
    ++Get().responses_;
  }
  static void OnData(int, int, void* data, unsigned int length, bool final) {
    Get().Add(data, length, final);
  }
  static void OnWritten(int, int, unsigned int) {}

  mutable std::mutex mutex_;
  std::string body_;
  std::atomic<int> responses_{0};
  std::atomic<int> finals_{0};
  std::atomic<int> failures_{0};
};

class FaultProcess : public testing::Test {
 protected:
  void SetUp() override {
#ifndef VEX_HAVE_VEXSIM
    GTEST_SKIP() << "built without the simulator";
#endif
    handle_ = rig_.Register();
  }
  void TearDown() override {
    if (!IsSkipped()) {
      EXPECT_TRUE(vex_test::StillWorks(handle_));
    }
  }

  static int LastOf(const std::string& name) {
    int last = 0;
    for (const ToldDevice& told : HostLog::Devices()) {
      if (told.udn == name) last = told.event;
    }
    return last;
  }
  static void Meet(Simulator& device) {
    ASSERT_TRUE(WaitUntil([&] {
      device.SayAlive();
      return WaitUntil([&] { return LastOf(device.name()) == 1; }, std::chrono::milliseconds(300));
    })) << device.name();
  }
  int Send(const Simulator& device) {
    int id = 0;
    EXPECT_EQ(0, SendAction(handle_, device.name().c_str(), kService, "GetStatus", nullptr, &id));
    return id;
  }
  // How often the host was told of this action, and what last.
  static int TimesTold(int id, ToldAction& last) {
    int times = 0;
    for (const ToldAction& told : HostLog::Actions()) {
      if (told.action_id != id) continue;
      last = told;
      ++times;
    }
    return times;
  }
  static ToldAction OutcomeOf(int id) {
    ToldAction outcome = {};
    EXPECT_TRUE(WaitUntil([&] { return TimesTold(id, outcome) > 0; })) << id;
    return outcome;
  }
  void ExpectToAct(const Simulator& device) {
    const ToldAction outcome = OutcomeOf(Send(device));
    EXPECT_EQ(CP_ERR_NONE, outcome.code);
    EXPECT_EQ("ResultStatus=0", outcome.output);
  }
  static bool Heard(const Simulator& device, const std::string& variables) {
    for (const ToldEvent& told : HostLog::Events()) {
      if (told.udn == device.name() && told.variables == variables) return true;
    }
    return false;
  }
  void Subscribe(const Simulator& device) {
    ASSERT_EQ(0, SubscribeService(handle_, device.name().c_str(), kService));
  }
  void Unsubscribe(const Simulator& device) {
    EXPECT_EQ(0, UnSubscribeService(handle_, device.name().c_str(), kService));
  }
  // The other one is found anew, acted on and heard, while the first stands still.
  void ExpectOtherIsServed(Simulator& other) {
    Meet(other);
    ExpectToAct(other);
    Subscribe(other);
    ASSERT_TRUE(WaitUntil([&] { return Heard(other, "Status=0"); }));
    other.Ask("set 1 SwitchPower.Status 1");
    EXPECT_TRUE(WaitUntil([&] { return Heard(other, "Status=1"); }));
    other.Ask("set 1 SwitchPower.Status 0");
    Unsubscribe(other);
  }

  const vex_test::Watchdog watchdog_{240};
  // 30 s are 1.5 s.
  const vex_test::FasterTime faster_{20};
  RemoteHost far_{"flap0", kNear, kFar};
  vex_test::HostRig rig_{{5100, 0, 5300, {"lan0", "flap0"}, ""}};
  int handle_ = 0;
};

TEST_F(FaultProcess, ADescriptionIsHadWhenTheDeviceGoesOnInTime) {
  Simulator device(far_, "lamp", "frozen");
  Simulator other(far_, "lamp", "other");
  device.Freeze();
  device.SayAlive();
  ASSERT_TRUE(device.IsAskedTimes(1));
  EXPECT_EQ(0, LastOf(device.name()));
  device.Thaw();
  ASSERT_TRUE(WaitUntil([&] { return LastOf(device.name()) == 1; }));
  ExpectToAct(device);
  ExpectOtherIsServed(other);
}

TEST_F(FaultProcess, ADescriptionThatIsGivenUpIsAskedForAfresh) {
  Simulator device(far_, "lamp", "frozen");
  Simulator other(far_, "lamp", "other");
  device.Freeze();
  device.SayAlive();
  ASSERT_TRUE(device.IsAskedTimes(1));
  EXPECT_FALSE(vex_test::NothingInFlight(device.name()));
  ExpectOtherIsServed(other);
  ASSERT_TRUE(WaitUntil([&] { return vex_test::NothingInFlight(device.name()); }));
  EXPECT_EQ(0, LastOf(device.name()));
  device.Thaw();
  Meet(device);
  ExpectToAct(device);
}

TEST_F(FaultProcess, AnActionEndsInItsTimeAndTheNextOneWorks) {
  Simulator device(far_, "lamp", "frozen");
  Simulator other(far_, "lamp", "other");
  Meet(device);
  ExpectToAct(device);
  device.Freeze();
  const auto begin = std::chrono::steady_clock::now();
  const int id = Send(device);
  ASSERT_TRUE(device.IsAskedTimes(1));
  ExpectOtherIsServed(other);
  EXPECT_EQ(CP_ERR_ACTION_FAILED, OutcomeOf(id).code);
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, std::chrono::milliseconds(1450));
  EXPECT_LT(waited, std::chrono::seconds(15));
  device.Thaw();
  ExpectToAct(device);
  ToldAction last = {};
  EXPECT_EQ(1, TimesTold(id, last));
  EXPECT_EQ(1, LastOf(device.name()));
}

TEST_F(FaultProcess, AnActionIsAnsweredWhenTheDeviceGoesOnInTime) {
  Simulator device(far_, "lamp", "frozen");
  Meet(device);
  device.Freeze();
  const int id = Send(device);
  ASSERT_TRUE(device.IsAskedTimes(1));
  device.Thaw();
  EXPECT_EQ(CP_ERR_NONE, OutcomeOf(id).code);
}

TEST_F(FaultProcess, ASubscriptionComesToItsEventsWhenTheDeviceGoesOn) {
  Simulator device(far_, "lamp", "frozen");
  Simulator other(far_, "lamp", "other");
  Meet(device);
  device.Freeze();
  Subscribe(device);
  ASSERT_TRUE(device.IsAskedTimes(1));
  ExpectOtherIsServed(other);
  // The first request has been given up, the second is waiting.
  ASSERT_TRUE(device.IsAskedTimes(2));
  device.Thaw();
  ASSERT_TRUE(WaitUntil([&] { return Heard(device, "Status=0"); }));
  device.Ask("set 1 SwitchPower.Status 1");
  EXPECT_TRUE(WaitUntil([&] { return Heard(device, "Status=1"); }));
  Unsubscribe(device);
}

TEST_F(FaultProcess, ARenewalThatIsNotAnsweredLeadsToANewSubscription) {
  Simulator device(far_, "lamp", "frozen");
  Simulator other(far_, "lamp", "other");
  Meet(device);
  // Renewed after 750 ms.
  device.Ask("events timeout=20");
  Subscribe(device);
  ASSERT_TRUE(WaitUntil([&] { return Heard(device, "Status=0"); }));
  device.Freeze();
  ASSERT_TRUE(device.IsAskedTimes(1));
  ExpectOtherIsServed(other);
  ASSERT_TRUE(device.IsAskedTimes(2));
  device.Thaw();
  // The one before it has lapsed here; only the new one can bring this.
  ASSERT_TRUE(WaitUntil([&] {
    device.Ask("set 1 SwitchPower.Status 1");
    device.Ask("set 1 SwitchPower.Status 0");
    return Heard(device, "Status=1");
  }));
  Unsubscribe(device);
}

// It ends silently with the third missing answer, and its place is taken until then.
TEST_F(FaultProcess, KeptASubscriptionThatNobodyAnswersStandsUntilItsControlPointGoes) {
  const vex_test::LogCapture log;
  Simulator device(far_, "lamp", "frozen");
  Meet(device);
  device.Freeze();
  Subscribe(device);
  ASSERT_TRUE(WaitUntil([&] { return log.Holds("Subscription failed Three times"); }));
  EXPECT_TRUE(device.IsAskedTimes(3));
  device.Thaw();
  EXPECT_NE(0, UnSubscribeService(handle_, device.name().c_str(), kService));
  EXPECT_EQ(CP_ERR_ALREADY_SUBSCRIBED, SubscribeService(handle_, device.name().c_str(), kService));
  ExpectToAct(device);
  ASSERT_EQ(0, UnRegisterCP(handle_));
  handle_ = rig_.Register();
  Subscribe(device);
  ASSERT_TRUE(WaitUntil([&] { return Heard(device, "Status=0"); }));
  Unsubscribe(device);
}

TEST_F(FaultProcess, ADownloadRestsAndGoesOn) {
  Simulator device(far_, "mediaserver", "frozen");
  Simulator other(far_, "mediaserver", "other");
  Download& download = Download::Get();
  int client = 0;
  Download::Begin(other, client);
  ASSERT_TRUE(WaitUntil([&] { return download.finals() == 1; }));
  const std::string whole = download.body();
  EXPECT_EQ(8044U, whole.size());

  // A second for the whole, a tenth of it at a time.
  device.Ask("fault */tone.wav rate=8000");
  int resting = 0;
  Download::Begin(device, resting);
  ASSERT_TRUE(WaitUntil([&] { return download.responses() == 1; }));
  device.Freeze();
  Meet(other);
  EXPECT_EQ(0, download.finals());
  EXPECT_EQ(0, download.failures());
  device.Thaw();
  ASSERT_TRUE(WaitUntil([&] { return download.finals() == 1; }));
  EXPECT_TRUE(whole == download.body()) << download.body().size();
  EXPECT_EQ(0, download.failures());

  // Nobody but its host ends one that rests for ever.
  Download::Begin(device, resting);
  ASSERT_TRUE(WaitUntil([&] { return download.responses() == 1; }));
  device.Freeze();
  EXPECT_EQ(0, streaming::StopClientTransfer(resting));
  streaming::stRunningSession* sessions = nullptr;
  EXPECT_EQ(0, streaming::GetRunningSessionInfo(&sessions));
  EXPECT_EQ(nullptr, sessions);
  streaming::FreeRunningSession(sessions);
  Download::Begin(other, client);
  ASSERT_TRUE(WaitUntil([&] { return download.finals() == 1; }));
  EXPECT_TRUE(whole == download.body());
  EXPECT_EQ(0, download.failures());
  device.Thaw();
  device.Ask("fault clear");
  Download::Begin(device, resting);
  ASSERT_TRUE(WaitUntil([&] { return download.finals() == 1; }));
  EXPECT_TRUE(whole == download.body());
}

}  // namespace
