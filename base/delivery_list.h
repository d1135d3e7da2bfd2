#ifndef VEXUPNPCP_BASE_DELIVERY_LIST_H_
#define VEXUPNPCP_BASE_DELIVERY_LIST_H_

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <list>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "base/thread_marks.h"

namespace vex_upnp {

// A list of receivers with two locks. A leaf guards the list and is held for one operation only;
// a recursive mutex serialises delivery and is held while receivers are called. Registrations and
// look-ups therefore never wait for a receiver, and whoever must say "no further call after this"
// takes the delivery mutex once, holding nothing else.
template <typename T>
class DeliveryList {
 public:
  using Pointer = boost::shared_ptr<T>;

  void Append(const Pointer& entry) {
    boost::lock_guard<boost::mutex> lock(list_mutex_);
    entries_.push_back(entry);
  }

  // Takes out every entry for which `matches` holds. The entries die with the returned vector, at
  // the caller, and never under the list's lock.
  template <typename Matches>
  std::list<Pointer> Remove(Matches matches) {
    std::list<Pointer> removed;
    boost::lock_guard<boost::mutex> lock(list_mutex_);
    for (auto entry = entries_.begin(); entry != entries_.end();) {
      const auto next = std::next(entry);
      if (matches(**entry)) removed.splice(removed.end(), entries_, entry);
      entry = next;
    }
    return removed;
  }

  std::list<Pointer> TakeAll() {
    boost::lock_guard<boost::mutex> lock(list_mutex_);
    std::list<Pointer> all;
    all.swap(entries_);
    return all;
  }

  template <typename Matches>
  Pointer Find(Matches matches) const {
    boost::lock_guard<boost::mutex> lock(list_mutex_);
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Pointer& entry) { return matches(*entry); });
    return found == entries_.end() ? Pointer() : *found;
  }

  std::vector<Pointer> Snapshot() const {
    boost::lock_guard<boost::mutex> lock(list_mutex_);
    return std::vector<Pointer>(entries_.begin(), entries_.end());
  }

  bool Empty() const {
    boost::lock_guard<boost::mutex> lock(list_mutex_);
    return entries_.empty();
  }

  // Outer to the list's lock. Recursive: a receiver may cause a delivery on its own thread.
  boost::recursive_mutex& delivery_mutex() { return delivery_mutex_; }

  // After this has returned, no delivery that began before it is still running on another thread.
  void WaitForDelivery() { boost::lock_guard<boost::recursive_mutex> wait(delivery_mutex_); }

 private:
  boost::recursive_mutex delivery_mutex_;
  mutable boost::mutex list_mutex_;
  // Taking an entry out must not need memory.
  std::list<Pointer> entries_ VEX_GUARDED_BY(list_mutex_);
};

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_DELIVERY_LIST_H_
