#ifndef VEXUPNPCP_BASE_SINGLETON_H_
#define VEXUPNPCP_BASE_SINGLETON_H_

#include <atomic>
#include <memory>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

namespace vex_upnp {

// Each singleton class keeps an instance pointer and a mutex of its own and names these helpers
// its friends through the factory that it passes.

// Double-checked: the first look costs no lock. `make` returns a new object or null.
template <typename T, typename Make>
T* GetOrCreate(std::atomic<T*>& instance, boost::mutex& mutex, Make make) {
  T* existing = instance.load(std::memory_order_acquire);
  if (existing != nullptr) return existing;
  boost::lock_guard<boost::mutex> lock(mutex);
  existing = instance.load(std::memory_order_relaxed);
  if (existing == nullptr) {
    existing = make();
    instance.store(existing, std::memory_order_release);
  }
  return existing;
}

// Deletes first and clears after: a destructor that joins threads lets them find the instance
// until they have ended.
template <typename T>
void Destroy(std::atomic<T*>& instance, boost::mutex& mutex) {
  boost::lock_guard<boost::mutex> lock(mutex);
  delete instance.load(std::memory_order_acquire);
  instance.store(nullptr, std::memory_order_release);
}

// Shares what `made` owns. Without memory it throws, and `made` still owns it.
template <typename T>
boost::shared_ptr<T> Share(std::unique_ptr<T>& made) {
#ifdef __clang_analyzer__
  // The analyzer can't follow the count of references and takes the change of hands inside the
  // conversion for its end.
  return boost::shared_ptr<T>(made.release());
#else
  return boost::shared_ptr<T>(std::move(made));
#endif
}

// For instances that handlers share: always looked at under the lock, so that whoever got a
// reference keeps the object for as long as it works on it.
template <typename T, typename Make>
boost::shared_ptr<T> GetOrCreateShared(boost::shared_ptr<T>& instance, boost::mutex& mutex,
                                       Make make) {
  // Declared before the lock: an object that finds no memory to be shared ends behind it.
  std::unique_ptr<T> made;
  boost::lock_guard<boost::mutex> lock(mutex);
  if (!instance) {
    made.reset(make());
    instance = Share(made);
  }
  return instance;
}

// Never creates: null before the first use and after termination.
template <typename T>
boost::shared_ptr<T> ExistingShared(const boost::shared_ptr<T>& instance, boost::mutex& mutex) {
  boost::lock_guard<boost::mutex> lock(mutex);
  return instance;
}

// Takes the instance out under the lock and lets it go after, so that no destructor runs under the
// singleton's mutex.
template <typename T>
void DestroyShared(boost::shared_ptr<T>& instance, boost::mutex& mutex) {
  boost::shared_ptr<T> last;
  {
    boost::lock_guard<boost::mutex> lock(mutex);
    last.swap(instance);
  }
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_SINGLETON_H_
