#include "src/datagram_feed.h"

#include <sys/socket.h>

#include <algorithm>

#include <vexupnpcp/result_codes.h>

#include "base/address_text.h"
#include "base/log.h"
#include "src/http_feed.h"

namespace vex_upnp {
namespace network_layer {
namespace {

constexpr const char* kTag = log::kTagNetwork;

// What a parsed header line takes beside its text.
constexpr std::size_t kLineOverhead = 64;

}  // namespace

std::size_t DatagramFeed::Receive(udp::socket& socket, error_code& error) {
  const std::size_t size =
      socket.receive_from(boost::asio::buffer(buffer_.data(), kSize), remote_endpoint_, 0, error);
  buffer_[error ? 0 : size] = '\0';
  return size;
}

DatagramFeed::Result DatagramFeed::Parse(std::size_t size) {
  if (!http_info_) http_info_.reset(new utils::HTTPInfo);
  joined_bytes_ += size;
  joined_cost_ += size + kLineOverhead * static_cast<std::size_t>(std::count(
                                             buffer_.data(), buffer_.data() + size, '\n'));
  if (utils::FeedParser(buffer_.data(), size, http_info_) != result::kOk) return Result::kFailed;
  if (http_info_->GetState() == utils::MESSAGE_COMPLETE ||
      http_info_->GetStatus() >= utils::HEADER_COMPLETE) {
    return Result::kComplete;
  }
  if (header_end_.Saw(buffer_.data(), size)) return Result::kFailed;
  if (joined_bytes_ > limits::kPartialDatagramHeader) {
    if (too_long_line_.Due()) {
      VEX_LOG(kLogMajor, kTag, "Unfinished header of %u bytes dropped",
              static_cast<unsigned int>(joined_bytes_));
    }
    Drop();
  }
  return Result::kIncomplete;
}

boost::shared_ptr<utils::HTTPInfo> DatagramFeed::Complete(const std::string& my_ip) {
  boost::shared_ptr<utils::HTTPInfo> message;
  message.swap(http_info_);
  message_bytes_ = joined_cost_;
  Drop();
  message->SetMyIpAddress(my_ip);
  message->SetClientIpAddress(AddressText(remote_endpoint_.address()));
  message->SetClientPort(remote_endpoint_.port());
  return message;
}

void DatagramFeed::Drop() {
  if (http_info_) http_info_->CleanInfo();
  header_end_ = HeaderEnd();
  joined_bytes_ = 0;
  joined_cost_ = 0;
}

void AskForReceiveBuffer(udp::socket& socket) {
  const int wanted = limits::kSsdpReceiveBuffer;
  if (setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof(wanted)) ==
      0) {
    return;
  }
  // Without the privilege the kernel cuts the wish to what the system allows.
  setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUF, &wanted, sizeof(wanted));
}

}  // namespace network_layer
}  // namespace vex_upnp
