// A host that lives for hours: meets devices, subscribes them, sends actions, fetches and serves
// media, and sees that the library keeps what it promises. It takes commands on standard input and
// tells on standard output, one JSON object a line, what it saw; run.py is at the other end.
//
//   soak_host INTERFACE SERVED_FILE ACTIONS_PER_SECOND [--trim]
//
// With --trim the free pages of the heap go back to the kernel at the end of each window.
//
//   stable UDN | slow UDN   before "go": this device never dies; the slow one stops for seconds
//   media SHA256            before "go": the digest of all media
//   go                      the library starts
//   devices                 what it lists now
//   expect UDN NUMBER       waits until that change has been told
//   settle                  waits until all actions have ended and what they set has been told;
//                           no new ones are sent
//   anew                    behind "settle": another control point takes the place of the first
//   resume                  actions again
//   stop                    the library ends, and the program
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "control_point.h"
#include "downloads.h"
#include "file_server.h"
#include "house.h"
#include "report.h"

namespace {

using soak::Print;

constexpr std::chrono::milliseconds kTick{20};
constexpr std::chrono::milliseconds kHeapTick{2};
constexpr std::int64_t kSecond = 1000000000;
constexpr std::int64_t kWindow = 10 * kSecond;
constexpr std::int64_t kEventLimit = 10 * kSecond;

int CountIn(const char* folder) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

// Threads when they are as few as `expected`, or after a second: the kernel lists one that was
// joined for a moment longer.
int ThreadsAtRest(int expected) {
  int threads = CountIn("/proc/self/task");
  for (int look = 0; look < 100 && threads > expected; ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    threads = CountIn("/proc/self/task");
  }
  return threads;
}

class SoakHost {
 public:
  SoakHost(const std::string& interface_name, const std::string& served, unsigned rate, bool trims)
      : interface_(interface_name),
        trims_(trims),
        server_(served),
        control_point_(house_, downloads_, rate) {}

  void Run() {
    std::string line;
    while (std::getline(std::cin, line)) {
      std::istringstream words(line);
      std::string command;
      words >> command;
      if (command == "stop") break;
      Execute(command, words);
    }
    if (started_) Stop();
  }

 private:
  void Execute(const std::string& command, std::istringstream& words) {
    std::string text;
    words >> text;
    if (command == "stable" || command == "slow") {
      house_.Promise(text, command == "slow");
    } else if (command == "media") {
      downloads_.Expect(text);
    } else if (command == "go") {
      Start();
    } else if (command == "devices") {
      asked_for_devices_ = true;
    } else if (command == "expect") {
      long long number = 0;
      words >> number;
      Print("{\"e\": \"expected\", \"udn\": %s, \"seen\": %s}", soak::Quoted(text).c_str(),
            soak::Quoted(house_.Expect(text, number, kEventLimit)).c_str());
    } else if (command == "settle") {
      Settle();
    } else if (command == "anew") {
      asked_for_another_ = true;
      while (asked_for_another_) std::this_thread::sleep_for(kTick);
      Print("{\"e\": \"anew\"}");
    } else if (command == "resume") {
      held_ = false;
    } else {
      std::fprintf(stderr, "soak_host: unknown command %s\n", command.c_str());
    }
  }

  void Start() {
    threads_ = CountIn("/proc/self/task");
    descriptors_ = CountIn("/proc/self/fd");
    control_point_.Start(interface_);
    downloads_.Start();
    const int port = server_.Start();
    started_ = true;
    worker_ = std::thread([this] { Work(); });
    watcher_ = std::thread([this] {
      while (!ended_) {
        soak::WatchHeap();
        std::this_thread::sleep_for(kHeapTick);
      }
    });
    Print("{\"e\": \"started\", \"port\": %d}", port);
  }

  // All calls of the control point come from this thread.
  void Work() {
    std::int64_t window = soak::Now() + kWindow;
    while (!ended_) {
      control_point_.Hold(held_);
      control_point_.Work();
      idle_ = held_ && control_point_.Idle();
      if (asked_for_devices_.exchange(false)) TellDevices();
      if (asked_for_another_) {
        control_point_.RegisterAnew();
        asked_for_another_ = false;
      }
      if (soak::Now() > window) {
        window += kWindow;
        if (trims_) malloc_trim(0);
        soak::PrintWindow();
      }
      std::this_thread::sleep_for(kTick);
    }
  }

  void TellDevices() {
    std::string text;
    for (const std::string& udn : control_point_.Listed())
      text += (text.empty() ? "" : ", ") + soak::Quoted(udn);
    Print("{\"e\": \"devices\", \"udns\": [%s]}", text.c_str());
  }

  // An action without an outcome is given up, and told, by the worker.
  void WaitUntilIdle() {
    idle_ = false;
    held_ = true;
    while (!idle_) std::this_thread::sleep_for(kTick);
  }

  void Settle() {
    WaitUntilIdle();
    const int checked = house_.Settle(kEventLimit);
    Print("{\"e\": \"settled\", \"devices\": %d}", checked);
  }

  void Stop() {
    WaitUntilIdle();
    ended_ = true;
    worker_.join();
    watcher_.join();
    server_.Stop();
    downloads_.Stop();
    control_point_.Stop();
    soak::PrintWindow();
    Print("{\"e\": \"end\", \"threads\": [%d, %d], \"descriptors\": [%d, %d]}", threads_,
          ThreadsAtRest(threads_), descriptors_, CountIn("/proc/self/fd"));
  }

  const std::string interface_;
  const bool trims_;
  soak::House house_;
  soak::Downloads downloads_;
  soak::FileServer server_;
  soak::ControlPoint control_point_;
  std::thread worker_;
  std::thread watcher_;
  int threads_ = 0;
  int descriptors_ = 0;
  bool started_ = false;
  std::atomic<bool> held_{false};
  std::atomic<bool> idle_{false};
  std::atomic<bool> ended_{false};
  std::atomic<bool> asked_for_devices_{false};
  std::atomic<bool> asked_for_another_{false};
};

}  // namespace

int main(int argc, char** argv) {
  const bool trims = argc == 5 && std::string(argv[4]) == "--trim";
  if (argc != (trims ? 5 : 4) || std::atoi(argv[3]) < 1) {
    std::fprintf(stderr, "usage: soak_host INTERFACE SERVED_FILE ACTIONS_PER_SECOND [--trim]\n");
    return 2;
  }
  SoakHost(argv[1], argv[2], static_cast<unsigned>(std::atoi(argv[3])), trims).Run();
  return soak::counts.violations == 0 ? 0 : 1;
}
