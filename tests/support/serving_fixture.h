#ifndef VEXUPNPCP_TESTS_SUPPORT_SERVING_FIXTURE_H_
#define VEXUPNPCP_TESTS_SUPPORT_SERVING_FIXTURE_H_

#include <gtest/gtest.h>

#include <string>

#include <vexupnpcp/networkmonitor.h>
#include <vexupnpcp/result_codes.h>
#include <vexupnpcp/streaming.h>

#include "tests/support/log_capture.h"
#include "tests/support/media_host.h"
#include "tests/support/network_run.h"
#include "tests/support/raw_socket.h"

namespace vex_test {

// One streaming server on a loopback address of this process, and a host that answers as the test
// says.
class ServingTest : public testing::Test {
 protected:
  ServingTest() : ip_(OwnLoopbackAddress()) {
    vex_upnp::network_layer::NotifyNICAdded("serve0", ip_, "255.0.0.0");
    EXPECT_EQ(vex_upnp::result::kOk, vex_upnp::streaming::InitializeStreamingManager());
  }
  // Nothing of the test is called or read any more when its members go.
  void TearDown() override {
    vex_upnp::streaming::FreeServerInfoList(servers_);
    EXPECT_EQ(vex_upnp::result::kOk, vex_upnp::streaming::TerminateStreamingManager());
  }

  // Starts the server; to be called when the host's answers are set.
  void Serve() {
    ASSERT_EQ(vex_upnp::result::kOk,
              vex_upnp::streaming::StartServers(MediaHost::callbacks(), ip_.c_str(), kFirstPort,
                                                &servers_, &configuration_));
    ASSERT_NE(nullptr, servers_);
    server_ = servers_->server_id;
    port_ = servers_->port;
  }
  // An event of this server's first connection.
  std::string Event(const std::string& what, const std::string& rest, int nth = 1) const {
    return what + " " + std::to_string(server_) + " " + std::to_string(server_ + nth) + " " + rest;
  }
  bool Await(const std::string& what, const std::string& rest, int nth = 1) const {
    return host_.Await(Event(what, rest, nth));
  }
  int Count(const std::string& what, const std::string& rest, int nth = 1) const {
    return host_.Count(Event(what, rest, nth));
  }

  static constexpr int kFirstPort = 21000;

  NetworkRun run_;
  MediaHost host_;
  const std::string ip_;
  vex_upnp::streaming::stServer* servers_ = nullptr;
  int configuration_ = 0;
  int server_ = 0;
  int port_ = 0;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_SERVING_FIXTURE_H_
