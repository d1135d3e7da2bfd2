#ifndef VEXUPNPCP_BASE_ASIO_H_
#define VEXUPNPCP_BASE_ASIO_H_

// The Asio names of this library, spelled so that Boost 1.74 to the newest accept them.

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/ip/multicast.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>

namespace vex_upnp {

using boost::asio::ip::tcp;
using boost::asio::ip::udp;
using boost::system::error_code;
using boost::system::system_error;

using io_service = boost::asio::io_context;
using io_work = boost::asio::executor_work_guard<io_service::executor_type>;
// On the monotonic clock: for waits that no step of the system's time may move.
using boost::asio::steady_timer;

inline io_work KeepRunning(io_service& io) { return boost::asio::make_work_guard(io); }

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_ASIO_H_
