// The answer to a blocking request at its bounds and one past them.

#include <gtest/gtest.h>

#include <string>

#include <boost/make_shared.hpp>

#include <vexupnpcp/httpinfo.h>
#include <vexupnpcp/network_layer.h>
#include <vexupnpcp/result_codes.h>

#include "base/limits.h"
#include "tests/support/http_peer.h"
#include "tests/support/network_run.h"

namespace vex_upnp {
namespace network_layer {
namespace {

using vex_test::AnswerAndClose;
using vex_test::HttpPeer;

class BlockingRequestLimits : public testing::Test {
 protected:
  int Outcome(const std::string& answer) {
    const HttpPeer peer(AnswerAndClose(answer));
    boost::shared_ptr<utils::HTTPInfo> response = boost::make_shared<utils::HTTPInfo>();
    return SendSyncTCPPacket(peer.ip(), peer.port(), "GET / HTTP/1.1\r\n\r\n", 0, response, 20000);
  }
  static std::string HeaderOfSize(std::size_t size) {
    std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nX: \r\n\r\n";
    return header.insert(header.size() - 4, std::string(size - header.size(), 'x'));
  }
  static std::string HeaderOfLines(std::size_t count) {
    std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n";
    for (std::size_t i = 1; i < count; ++i) header += "a: b\r\n";
    return header + "\r\n";
  }
  static std::string HeaderOfStrayLines(std::size_t count) {
    std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\na: b\r\n";
    for (std::size_t i = 2; i < count; ++i) header += "x\r\n";
    return header + "\r\n";
  }

  vex_test::NetworkRun run_;
};

TEST_F(BlockingRequestLimits, AHeaderAtItsBoundsIsTaken) {
  EXPECT_EQ(result::kOk, Outcome(HeaderOfSize(limits::kHttpHeaderBytes)));
  EXPECT_EQ(result::kOk, Outcome(HeaderOfLines(limits::kHttpHeaderLines)));
  EXPECT_EQ(result::kOk, Outcome(HeaderOfStrayLines(limits::kHttpHeaderLines)));
}

TEST_F(BlockingRequestLimits, AHeaderOnePastItsBoundsFails) {
  EXPECT_EQ(result::kBadHttp, Outcome(HeaderOfSize(limits::kHttpHeaderBytes + 1)));
  EXPECT_EQ(result::kBadHttp, Outcome(HeaderOfLines(limits::kHttpHeaderLines + 1)));
  EXPECT_EQ(result::kBadHttp, Outcome(HeaderOfStrayLines(limits::kHttpHeaderLines + 1)));
}

TEST_F(BlockingRequestLimits, ABodyOfTheLargestLengthIsNotWaitedFor) {
  EXPECT_EQ(result::kBadHttp,
            Outcome("HTTP/1.1 200 OK\r\n\r\n" + std::string(limits::kControlBody + 1, 'b')));
}

}  // namespace
}  // namespace network_layer
}  // namespace vex_upnp
