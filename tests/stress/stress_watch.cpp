#include "tests/stress/stress_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace vex_stress {
namespace {

// Far above what any call takes on two busy cores under a sanitizer.
constexpr std::chrono::seconds kBound{25};
constexpr std::size_t kPlaces = 64;

struct Place {
  std::atomic<bool> taken{false};
  std::atomic<const char*> name{nullptr};
  std::atomic<Clock::rep> begun{0};
};

std::mutex counts_mutex;
std::map<std::string, long long> counts;
std::map<std::string, Clock::duration> longest;
std::array<Place, kPlaces> places;

}  // namespace

void Counts::Add(const std::string& name, long long amount) {
  const std::lock_guard<std::mutex> lock(counts_mutex);
  counts[name] += amount;
}

long long Counts::Of(const std::string& name) {
  const std::lock_guard<std::mutex> lock(counts_mutex);
  const auto found = counts.find(name);
  return found == counts.end() ? 0 : found->second;
}

void Counts::Print() {
  const std::lock_guard<std::mutex> lock(counts_mutex);
  for (const auto& [name, count] : counts) {
    std::printf("%-44s %10lld", name.c_str(), count);
    const auto slowest = longest.find(name);
    if (slowest != longest.end()) {
      std::printf("   longest %8.1f ms",
                  std::chrono::duration<double, std::milli>(slowest->second).count());
    }
    std::printf("\n");
  }
}

void Violation(const std::string& text) { ADD_FAILURE() << text; }

void Gate::Enter() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return !closed_; });
  ++inside_;
}

void Gate::Leave() {
  const std::lock_guard<std::mutex> lock(mutex_);
  --inside_;
  changed_.notify_all();
}

void Gate::Close() {
  std::unique_lock<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.wait(lock, [this] { return inside_ == 0; });
}

void Gate::Open() {
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_ = false;
  changed_.notify_all();
}

Watchdog::Watchdog() : thread_([this] { Run(); }) {}

Watchdog::~Watchdog() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void Watchdog::Run() {
  constexpr std::chrono::milliseconds kLook{200};
  std::unique_lock<std::mutex> lock(mutex_);
  while (!changed_.wait_for(lock, kLook, [this] { return ended_; })) {
    const Clock::rep now = Clock::now().time_since_epoch().count();
    for (const Place& place : places) {
      const char* const name = place.name;
      if (name == nullptr || Clock::duration(now - place.begun) < kBound) continue;
      std::fprintf(stderr, "%s has not returned\n", name);
      std::abort();
    }
  }
}

Watchdog::Call::Call(const char* name) : begun_(Clock::now()), name_(name) {
  for (std::size_t i = 0; i < kPlaces; ++i) {
    if (places[i].taken.exchange(true)) continue;
    places[i].begun = begun_.time_since_epoch().count();
    places[i].name = name;
    place_ = static_cast<int>(i);
    return;
  }
}

Watchdog::Call::~Call() {
  if (place_ >= 0) {
    Place& place = places[static_cast<std::size_t>(place_)];
    place.name = nullptr;
    place.taken = false;
  }
  const std::lock_guard<std::mutex> lock(counts_mutex);
  ++counts[name_];
  Clock::duration& slowest = longest[name_];
  slowest = std::max(slowest, Clock::now() - begun_);
}

}  // namespace vex_stress
