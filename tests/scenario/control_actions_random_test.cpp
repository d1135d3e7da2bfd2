#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <vexupnpcp/cp_control.h>

#include "tests/support/control_peer.h"
#include "tests/support/control_stack.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace cp_control {
namespace {

using vex_test::ControlPeer;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::WaitUntil;

using Random = std::minstd_rand;

int Pick(Random& random, int below) {
  return static_cast<int>(random() % static_cast<unsigned>(below));
}

// Counts for every action how often its context came back.
class Bookkeeper : public ControlResponseListener {
 public:
  explicit Bookkeeper(std::size_t actions) : tokens_(actions) {}

  void OnResponseReceived(const int&, const int& status, const std::string&,
                          void* context) override {
    if (context == nullptr) {
      ++duplicates;
      return;
    }
    ++(status == 200 ? answers : failures);
    GiveBack(context);
  }
  void DeleteContext(void* context) override {
    ++cancels;
    GiveBack(context);
  }

  void* Token(std::size_t action) { return &tokens_[action]; }
  int given_back() const { return given_back_; }
  bool EachOnce() const {
    return std::all_of(tokens_.begin(), tokens_.end(),
                       [](const std::atomic<int>& token) { return token == 1; });
  }

  std::atomic<int> answers{0};
  std::atomic<int> failures{0};
  std::atomic<int> cancels{0};
  std::atomic<int> duplicates{0};

 private:
  void GiveBack(void* context) {
    ++*static_cast<std::atomic<int>*>(context);
    ++given_back_;
  }

  std::vector<std::atomic<int>> tokens_;
  std::atomic<int> given_back_{0};
};

// The device does what the path asks for; a number behind it is a delay in milliseconds.
PeerAnswer Misbehave(const PeerRequest& request) {
  const std::string path = request.text.substr(5, request.text.find(' ', 5) - 5);
  PeerAnswer answer = vex_test::Text("HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 4\r\n\r\n<a/>");
  switch (path[1]) {
    case 'r':
      answer = vex_test::Reset();
      break;
    case 'c':
      answer = PeerAnswer();
      break;
    case 'b':
      answer = vex_test::Text("\x01\x02 no HTTP\r\n\r\n");
      break;
    case 's':
      return vex_test::Silence();
    case 'f':
      answer = vex_test::Text("HTTP/1.1 500 No\r\nCONTENT-LENGTH: 0\r\n\r\n");
      break;
    default:
      break;
  }
  answer.delay = std::chrono::milliseconds(std::atoi(path.c_str() + 2));
  return answer;
}

// Cancels actions from a thread of its own, a little after they were sent.
class Canceller {
 public:
  Canceller() : thread_([this] { Run(); }) {}
  ~Canceller() {
    ended_ = true;
    thread_.join();
  }
  void Add(int action_id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ids_.push_back(action_id);
  }

 private:
  void Run() {
    Random random(7);
    for (;;) {
      int id = 0;
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (ids_.empty() && ended_) return;
        if (!ids_.empty()) {
          id = ids_.front();
          ids_.pop_front();
        }
      }
      if (id != 0) CancelAction(id);
      if (id == 0 || Pick(random, 8) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(Pick(random, 4)));
      }
    }
  }

  std::mutex mutex_;
  std::deque<int> ids_;
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

class RandomActions {
 public:
  explicit RandomActions(int count) : count_(count), books_(static_cast<std::size_t>(count)) {}

  void Run() {
    {
      Canceller canceller;
      std::vector<std::thread> senders;
      for (unsigned i = 0; i < 4; ++i) {
        senders.emplace_back([this, i, &canceller] { SendAll(i, canceller); });
      }
      for (std::thread& sender : senders) sender.join();
    }
    ASSERT_TRUE(
        WaitUntil([&] { return books_.given_back() >= count_; }, std::chrono::milliseconds(60000)))
        << books_.given_back();
    stack_.TerminateControl();
    EXPECT_TRUE(books_.EachOnce());
    EXPECT_EQ(count_, books_.given_back());
    EXPECT_EQ(count_, books_.answers + books_.failures + books_.cancels);
    EXPECT_GT(books_.answers, count_ / 20);
    EXPECT_GT(books_.failures, count_ / 20);
    EXPECT_GT(books_.cancels, count_ / 20);
    std::printf("answers %d, failures %d, cancels %d, duplicates %d\n", books_.answers.load(),
                books_.failures.load(), books_.cancels.load(), books_.duplicates.load());
  }

 private:
  void SendAll(unsigned seed, Canceller& canceller) {
    Random random(seed + 1);
    for (int number = next_++; number < count_; number = next_++) {
      WaitUntil([&] { return number - books_.given_back() < kOpenAtMost; });
      int id = 0;
      void* const token = books_.Token(static_cast<std::size_t>(number));
      if (SendAction("uuid:1", peer_.HostLine(), "S", Url(random), "<x/>", "", &books_, token,
                     id) != 0) {
        // The context has stayed with us.
        books_.DeleteContext(token);
        continue;
      }
      const int fate = Pick(random, 10);
      if (fate == 0) CancelAction(id);
      if (fate == 1 || fate == 2) canceller.Add(id);
    }
  }
  std::string Url(Random& random) {
    static const char kWays[] = "aaaaaaaaddddddffrcbsx";
    const char way = kWays[Pick(random, sizeof(kWays) - 1)];
    // Port 9 of the device: nobody listens there.
    if (way == 'x') return std::string("http://") + vex_test::kDeviceAddress + ":9/x";
    // Around the time-out, which comes after 30 ms.
    const int delay = way == 'd' ? 20 + Pick(random, 20) : 0;
    return peer_.Url(std::string("/") + way + std::to_string(delay));
  }

  static constexpr int kOpenAtMost = 150;

  const int count_;
  std::atomic<int> next_{0};
  const vex_test::FasterTime faster_{1000};
  Bookkeeper books_;
  ControlPeer peer_{vex_test::kDeviceAddress, 0, Misbehave};
  vex_test::ControlStack stack_;
};

TEST(ControlActionsRandom, EveryContextComesBackExactlyOnce) { RandomActions(4000).Run(); }

TEST(ControlActionsRandom, SlowEveryOneOfAHundredThousandContextsComesBackExactlyOnce) {
  RandomActions(100000).Run();
}

}  // namespace
}  // namespace cp_control
}  // namespace vex_upnp
