#ifndef VEXUPNPCP_BASE_IO_THREADS_H_
#define VEXUPNPCP_BASE_IO_THREADS_H_

#include <functional>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include "base/asio.h"

namespace vex_upnp {

// An event loop, and what keeps it running while it has nothing to do.
struct IoPool {
  IoPool() : io(new io_service), work(KeepRunning(*io)) {}
  boost::shared_ptr<io_service> io;
  io_work work;
};

// The first three characters of the calling thread's name, by which the library's threads show
// whose they are. Returns false, with an empty prefix, when the platform gives no name.
bool ThreadNamePrefix(std::string& prefix);

// Runs a loop to its stop. What a handler lets pass is logged: it must end neither the thread nor
// the process.
void RunLoop(io_service& io);

// Starts `body` on a new thread with the library's stack size and gives it `name` before
// returning. A name that the platform refuses is no fault. Throws boost::thread_resource_error.
// The caller owns the thread.
boost::thread* StartNamedThread(const std::string& name, std::function<void()> body);

// Whether the caller runs on a thread that StartNamedThread or StartIoThreads has made: such a
// thread serves others too, and must not wait for something as slow as a name server.
bool OnLibraryThread();

// Adds `count` threads to `threads` that run `io`, named prefix, base text and index from 0.
// Throws boost::thread_resource_error; the threads made so far stay in the group.
void StartIoThreads(boost::thread_group& threads, io_service& io, int count,
                    const std::string& prefix, const std::string& base_text);

// The same for a pool that one of its own threads may end: each thread holds `io` while it runs.
void StartIoThreads(boost::thread_group& threads, const boost::shared_ptr<io_service>& io,
                    int count, const std::string& prefix, const std::string& base_text);

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_IO_THREADS_H_
