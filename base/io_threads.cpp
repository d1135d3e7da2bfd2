#include "base/io_threads.h"

#include <pthread.h>

#include <memory>
#include <utility>

#include "base/current_exception.h"
#include "base/limits.h"
#include "base/log.h"
#include "base/retry.h"

namespace vex_upnp {
namespace {

constexpr std::size_t kThreadNameSize = 16;
constexpr std::size_t kPrefixLength = 3;

thread_local bool on_library_thread = false;

void StartPool(boost::thread_group& threads, io_service& io, int count, const std::string& name,
               const std::function<void()>& body) {
  // A pool that was stopped before would return from run() at once.
  if (io.stopped()) io.restart();
  for (int i = 0; i < count; ++i) {
    std::unique_ptr<boost::thread> thread(StartNamedThread(name + std::to_string(i), body));
    // The thread runs already: without its place in the group nobody could wait for its end.
    RetryWithoutMemory([&] { threads.add_thread(thread.get()); });
    static_cast<void>(thread.release());
  }
}

}  // namespace

bool ThreadNamePrefix(std::string& prefix) {
  char name[kThreadNameSize] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) {
    prefix.clear();
    return false;
  }
  prefix.assign(name);
  if (prefix.size() > kPrefixLength) prefix.resize(kPrefixLength);
  return true;
}

void RunLoop(io_service& io) {
  for (;;) {
    try {
      io.run();
      return;
    } catch (...) {
      LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagNetwork, "Exception: %s",
                          "Unknown Exception");
    }
  }
}

boost::thread* StartNamedThread(const std::string& name, std::function<void()> body) {
  boost::thread::attributes attributes;
  attributes.set_stack_size(limits::kThreadStack);
  std::unique_ptr<boost::thread> thread(
      new boost::thread(attributes, [name, run = std::move(body)] {
        // Here as well as below: the body sees its name, and so does whoever gets the thread.
        pthread_setname_np(pthread_self(), name.c_str());
        on_library_thread = true;
        run();
      }));
  pthread_setname_np(thread->native_handle(), name.c_str());
  return thread.release();
}

bool OnLibraryThread() { return on_library_thread; }

void StartIoThreads(boost::thread_group& threads, io_service& io, int count,
                    const std::string& prefix, const std::string& base_text) {
  StartPool(threads, io, count, prefix + base_text, [&io] { RunLoop(io); });
}

void StartIoThreads(boost::thread_group& threads, const boost::shared_ptr<io_service>& io,
                    int count, const std::string& prefix, const std::string& base_text) {
  StartPool(threads, *io, count, prefix + base_text, [io] { RunLoop(*io); });
}

}  // namespace vex_upnp
