#ifndef VEXUPNPCP_SRC_PACKET_QUEUE_H_
#define VEXUPNPCP_SRC_PACKET_QUEUE_H_

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <utility>

#include <boost/chrono/system_clocks.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>

#include "base/thread_marks.h"

namespace vex_upnp {
namespace network_layer {

// Packets that wait for a thread of a pool. Packets with one key are given out one at a time, in
// the order in which they came: the next only after the one before has been finished. Packets with
// different keys, or with an empty one, don't wait for each other.
//
// The user posts one job for each packet that may run: when Append or Finish say so.
template <typename Packet>
class PacketQueue {
 public:
  enum class Entry { kReady, kHeldBack, kRefused };

  // With fewer than `easy_packets` waiting, AwaitEasy does not wait.
  PacketQueue(std::size_t most_packets, std::size_t most_bytes, std::size_t easy_packets)
      : most_packets_(most_packets), most_bytes_(most_bytes), easy_packets_(easy_packets) {}

  // kReady: a job is to be posted. kHeldBack: Finish will ask for one. kRefused: no room.
  Entry Append(const std::string& key, const Packet& packet, std::size_t bytes) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (packets_ >= most_packets_ || bytes > most_bytes_ - bytes_) return Entry::kRefused;
    // Whatever may fail for want of memory comes before anything is linked.
    std::list<Waiting> waiting;
    waiting.push_back({key, packet, bytes});
    const auto lane = lanes_.find(key);
    const bool held_back = lane != lanes_.end();
    if (!held_back && !key.empty()) lanes_.try_emplace(key);
    std::list<Waiting>& queue = held_back ? lane->second : ready_;
    queue.splice(queue.end(), waiting);
    ++packets_;
    bytes_ += bytes;
    return held_back ? Entry::kHeldBack : Entry::kReady;
  }

  // Takes the packet that has been ready longest. False with none.
  bool Take(std::string& key, Packet& packet) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (ready_.empty()) return false;
    Waiting& first = ready_.front();
    key.swap(first.key);
    packet = std::move(first.packet);
    --packets_;
    bytes_ -= first.bytes;
    ready_.pop_front();
    if (packets_ + 1 == easy_packets_) eased_.notify_all();
    return true;
  }

  // For whoever could bring more: lets those who take packets catch up, for `most` at most.
  void AwaitEasy(boost::chrono::milliseconds most) VEX_NO_THREAD_SAFETY_ANALYSIS {
    boost::unique_lock<boost::mutex> lock(mutex_);
    const auto end = boost::chrono::steady_clock::now() + most;
    while (packets_ >= easy_packets_ &&
           eased_.wait_until(lock, end) == boost::cv_status::no_timeout) {
    }
  }

  // The packet that was taken under `key` has been handled. True when the next one of that key has
  // become ready: a job is to be posted for it.
  bool Finish(const std::string& key) {
    if (key.empty()) return false;
    boost::lock_guard<boost::mutex> lock(mutex_);
    const auto lane = lanes_.find(key);
    if (lane == lanes_.end()) return false;
    if (lane->second.empty()) {
      lanes_.erase(lane);
      return false;
    }
    ready_.splice(ready_.end(), lane->second, lane->second.begin());
    return true;
  }

  // Empties the queue and gives each packet to `take`, with no lock held. What is being handled is
  // not touched; its Finish finds nothing behind it. Needs no memory.
  template <typename Take>
  void TakeAll(Take take) {
    std::list<Waiting> ready;
    std::unordered_map<std::string, std::list<Waiting>> lanes;
    {
      boost::lock_guard<boost::mutex> lock(mutex_);
      ready.swap(ready_);
      lanes.swap(lanes_);
      packets_ = 0;
      bytes_ = 0;
      eased_.notify_all();
    }
    for (const Waiting& waiting : ready) take(waiting.packet);
    for (const auto& lane : lanes) {
      for (const Waiting& waiting : lane.second) take(waiting.packet);
    }
  }

  std::size_t size() const {
    boost::lock_guard<boost::mutex> lock(mutex_);
    return packets_;
  }

 private:
  struct Waiting {
    std::string key;
    Packet packet;
    std::size_t bytes;
  };

  const std::size_t most_packets_;
  const std::size_t most_bytes_;
  const std::size_t easy_packets_;
  boost::condition_variable eased_;
  mutable boost::mutex mutex_;
  std::list<Waiting> ready_ VEX_GUARDED_BY(mutex_);
  // One lane for each key of which a packet is ready or being handled: what came behind it.
  std::unordered_map<std::string, std::list<Waiting>> lanes_ VEX_GUARDED_BY(mutex_);
  std::size_t packets_ VEX_GUARDED_BY(mutex_) = 0;
  std::size_t bytes_ VEX_GUARDED_BY(mutex_) = 0;
};

}  // namespace network_layer
}  // namespace vex_upnp

#endif  // VEXUPNPCP_SRC_PACKET_QUEUE_H_
