// What a broken or malicious sender of datagrams may try, on real sockets and with the whole
// library behind them.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/scoped_fd.h"
#include "tests/support/control_stack.h"
#include "tests/support/fake_device.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_device.h"
#include "tests/support/timing_scaled.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::AliveDatagram;
using vex_test::ByebyeDatagram;
using vex_test::DescriptionServer;
using vex_test::FakeDevice;
using vex_test::FasterTime;
using vex_test::HostLog;
using vex_test::LogCapture;
using vex_test::ScriptedDevice;
using vex_test::SearchAnswerDatagram;
using vex_test::SsdpPeer;
using vex_test::StillWorks;
using vex_test::WaitUntil;

// The discard service, where nobody listens.
constexpr char kRefusing[] = "http://10.77.0.2:9/d.xml";

std::string Repeated(const std::string& piece, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += piece;
  return text;
}

// 10.77.0.1, and 10.77.0.99, which nobody has.
constexpr std::uint32_t kLibraryNumber = 0x0a4d0001;
constexpr std::uint32_t kStranger = 0x0a4d0063;

class Stopwatch {
 public:
  // Begun ones count.
  int Seconds() const {
    const auto elapsed = std::chrono::steady_clock::now() - begin_;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()) + 1;
  }

 private:
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Sends datagrams whose sender is whoever the test says.
class ForgingSocket {
 public:
  ForgingSocket() : socket_(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)) {
    EXPECT_TRUE(socket_.valid());
  }

  void Send(std::uint32_t from, std::uint32_t to, int port, const std::string& datagram) {
    std::vector<char> packet(sizeof(iphdr) + sizeof(udphdr) + datagram.size());
    iphdr ip{};
    ip.version = 4;
    ip.ihl = 5;
    ip.ttl = 4;
    ip.protocol = IPPROTO_UDP;
    ip.saddr = htonl(from);
    ip.daddr = htonl(to);
    udphdr udp{};
    udp.source = htons(1900);
    udp.dest = htons(static_cast<std::uint16_t>(port));
    udp.len = htons(static_cast<std::uint16_t>(sizeof(udphdr) + datagram.size()));
    std::memcpy(packet.data(), &ip, sizeof(ip));
    std::memcpy(packet.data() + sizeof(ip), &udp, sizeof(udp));
    std::memcpy(packet.data() + sizeof(ip) + sizeof(udp), datagram.data(), datagram.size());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(to);
    EXPECT_EQ(static_cast<ssize_t>(packet.size()),
              ::sendto(socket_.get(), packet.data(), packet.size(), 0,
                       reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  }

 private:
  const vex_upnp::ScopedFd socket_;
};

class DatagramHostile : public vex_test::HostileRig {};

// Each with its name, since most cannot be printed.
struct OddDatagram {
  const char* name;
  std::string bytes;
};

std::vector<OddDatagram> OddDatagrams() {
  const std::string long_text(8000, 'x');
  const std::string colons(8000, ':');
  const std::string http(kRefusing);
  const std::string answer = "HTTP/1.1 200 OK\r\n";
  return {
      {"empty", ""},
      {"one byte", "x"},
      {"a NUL", std::string(1, '\0')},
      {"only a line end", "\r\n"},
      {"only a blank line", "\r\n\r\n"},
      {"the largest datagram of one letter", std::string(65507, 'a')},
      {"the largest datagram of line ends", Repeated("\r\n", 32753)},
      {"USN of 8,000 bytes", AliveDatagram(long_text, "upnp:rootdevice", http)},
      {"NT of 8,000 bytes", AliveDatagram("uuid:a", long_text, http)},
      {"LOCATION of 8,000 bytes",
       AliveDatagram("uuid:a", "upnp:rootdevice", http + std::string(7700, 'x'))},
      {"no colon in any", AliveDatagram("uuid", "root", "http//10.77.0.2")},
      {"thousands of colons in USN", AliveDatagram(colons.substr(0, 7000), "x", http)},
      {"thousands of colons in NT", AliveDatagram("uuid:a", colons.substr(0, 7000), http)},
      {"thousands of colons in LOCATION", AliveDatagram("uuid:a", "x", colons.substr(0, 7000))},
      {"only :: everywhere", AliveDatagram("::", "::", "::")},
      {"farewell of ::", ByebyeDatagram("::", "::")},
      {"high bytes in names", answer + "\x80\xff\xfeSN: \x81\r\nUSN\xff: uuid:a\r\n\r\n"},
      {"high bytes in values", AliveDatagram("\x80\xff\xfe", "\xff", "http://\xff:1/")},
      {"NUL in a name", std::string("NOTIFY * HTTP/1.1\r\nU\0SN: uuid:a\r\n\r\n", 36)},
      {"NUL in USN", AliveDatagram(std::string("uu\0id:a", 7), "x", http)},
      {"NUL in LOCATION", AliveDatagram("uuid:a", "x", std::string("http://10.77.0.2:9/\0x", 21))},
      {"NUL in the first line", std::string("NOTIFY\0* HTTP/1.1\r\nA: b\r\n\r\n", 27)},
      {"20,000 lines that are no headers",
       "NOTIFY * HTTP/1.1\r\nUSN: uuid:a\r\n" + Repeated("x\r\n", 20000) + "\r\n"},
      {"no USN", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\n\r\n"},
      {"empty USN", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\nUSN: \r\n\r\n"},
      {"no NTS", "NOTIFY * HTTP/1.1\r\nUSN: uuid:a\r\nLOCATION: " + http + "\r\n\r\n"},
      {"an unknown NTS",
       "NOTIFY * HTTP/1.1\r\nNTS: ssdp:maybe\r\nUSN: uuid:a\r\nLOCATION: " + http + "\r\n\r\n"},
      {"answer without anything", answer + "\r\n"},
      {"answer with status 404", "HTTP/1.1 404 Not Found\r\nUSN: uuid:a\r\n\r\n"},
      {"status line without code", "HTTP/1.1\r\n\r\n"},
      {"version 9.9", "NOTIFY * HTTP/9.9\r\nNTS: ssdp:alive\r\nUSN: uuid:a\r\n\r\n"},
      {"a header without name", "NOTIFY * HTTP/1.1\r\n: x\r\n\r\n"},
      {"a header line without colon", answer + "no colon\r\n\r\n"},
      {"Content-Length of -1", "NOTIFY * HTTP/1.1\r\nCONTENT-LENGTH: -1\r\n\r\n"},
      {"Content-Length of 2^64", answer + "CONTENT-LENGTH: 18446744073709551616\r\n\r\n"},
      {"chunks", answer + "TRANSFER-ENCODING: chunked\r\n\r\nzz\r\n"},
      {"somebody's search",
       "M-SEARCH * HTTP/1.1\r\nMAN: \"ssdp:discover\"\r\nST: ssdp:all\r\n\r\n"},
      {"a thousand headers", answer + Repeated("A:b\r\n", 1000) + "\r\n"},
      {"a beginning", "HTTP/1.1 200 OK\r\nUSN: uuid:begun"},
  };
}

TEST_F(DatagramHostile, OddDatagramsDoNoHarm) {
  for (const OddDatagram& odd : OddDatagrams()) {
    SCOPED_TRACE(odd.name);
    Say(odd.bytes);
    ASSERT_TRUE(StillWorks(handle_));
  }
}

TEST_F(DatagramHostile, AllOddDatagramsInAnyOrderDoNoHarm) {
  const std::vector<OddDatagram> odd = OddDatagrams();
  std::uint32_t state = 1;
  for (int i = 0; i < 3000; ++i) {
    state = state * 1664525U + 1013904223U;
    Say(odd[(state >> 16) % odd.size()].bytes);
  }
}

TEST_F(DatagramHostile, WhatAFragmentSpoilsComesWithTheNextAnnouncement) {
  SsdpPeer other("10.77.1.2");
  ScriptedDevice device("uuid:whole", {"SwitchPower"});
  for (int i = 0; i < 20; ++i) {
    other.Send("NOTIFY * HTTP/1.1\r\nUSN: uuid:fragment", kLibrary, kUdpPort);
    device.SayAlive(kLibrary, kUdpPort);
  }
  // Datagrams of two senders may change places on the way, so one may have come whole before.
  device.SayAlive(kLibrary, kUdpPort);
  EXPECT_TRUE(WaitUntil([] { return WasTold(1, "uuid:whole+lan0"); }));
}

// From another machine: at 10.77.0.2 even a loopback address may be meant.
TEST_F(DatagramHostile, LocationsThatCannotBeRightAreNeverAskedAndLoggedOnceASecondAtMost) {
  DescriptionServer server(kPeer);
  FakeDevice device;
  device.udn = "uuid:forbidden";
  ServeDevice(server, "/d.xml", device);
  const std::string port = ":" + std::to_string(server.port());
  const std::vector<std::string> locations = {
      "http://127.0.0.1" + port + "/d.xml",
      "http://127.255.255.254" + port + "/d.xml",
      "http://localhost" + port + "/d.xml",
      "http://LOCALHOST." + port + "/d.xml",
      "http://0.0.0.0" + port + "/d.xml",
      "http://255.255.255.255" + port + "/d.xml",
      "http://10.77.0.255" + port + "/d.xml",
      "http://224.0.0.1" + port + "/d.xml",
      "http://239.255.255.250:1900/d.xml",
      "http://172818434" + port + "/d.xml",
      "http://10.77.2" + port + "/d.xml",
      "http://012.0115.0.2" + port + "/d.xml",
      "http://0x0a4d0002" + port + "/d.xml",
      "http://0xa.0x4d.0.2" + port + "/d.xml",
      "http://user@10.77.0.2" + port + "/d.xml",
      "http://user:9@10.77.0.2" + port + "/d.xml",
      "http://10.77.0.1:" + std::to_string(kEventPort) + "/d.xml",
      "http://10.77.0.2:0/d.xml",
      "http://10.77.0.2:65536/d.xml",
      "http://10.77.0.2:-1/d.xml",
      "http://10.77.0.2:4294967376/d.xml",
      "http://10.77.0.2:/d.xml",
      "http://10.77.0.2/d.xml",
      "http://:80/d.xml",
      "http://[::1]:80/d.xml",
      "",
  };
  ForgingSocket socket;
  const auto say = [&](const std::string& location) {
    socket.Send(kStranger, kLibraryNumber, kUdpPort,
                AliveDatagram("uuid:forbidden", "upnp:rootdevice", location));
  };
  LogCapture log;
  const auto refusals = [&] {
    int lines = 0;
    for (const auto& line : log.Lines()) {
      if (line.text.find("Location of [uuid:forbidden+lan0] refused") == 0) ++lines;
    }
    return lines;
  };
  const Stopwatch watch;
  EXPECT_TRUE(WaitUntil([&] {
    for (const std::string& location : locations) say(location);
    // An address that nobody here has is none of ours to refuse.
    SayAlive("uuid:elsewhere", "http://169.254.169.254:80/d.xml");
    return refusals() >= 2;
  }));
  ASSERT_TRUE(StillWorks(handle_));
  EXPECT_EQ(0, server.Connections());
  EXPECT_LE(refusals(), watch.Seconds() + 1);
  // The right one passes.
  say(server.Url("/d.xml"));
  EXPECT_TRUE(WaitUntil([] { return WasTold(1, "uuid:forbidden+lan0"); }));
}

TEST_F(DatagramHostile, TenThousandStrangersOfOneHost) {
  // Whoever is refused is tried again later and then forgotten.
  FasterTime faster(20);
  for (int i = 0; i < 10000; ++i) SayAlive("uuid:stranger-" + std::to_string(i), kRefusing);
}

TEST_F(DatagramHostile, TenThousandStrangersOfForgedSenders) {
  // Nobody answers at these addresses, so that every request hangs until it is given up.
  FasterTime faster(20);
  ForgingSocket socket;
  for (std::uint32_t i = 0; i < 10000; ++i) {
    const std::uint32_t host = 3 + i % 250;
    socket.Send(0x0a4d0000 + host, kLibraryNumber, kUdpPort,
                AliveDatagram("uuid:forged-" + std::to_string(i), "upnp:rootdevice",
                              "http://10.77.0." + std::to_string(host) + ":80/d.xml"));
  }
}

TEST_F(DatagramHostile, TenThousandSendersThatAreNowhere) {
  ForgingSocket socket;
  for (std::uint32_t i = 0; i < 10000; ++i) {
    socket.Send(0xc6120000 + i, kLibraryNumber, kUdpPort,
                AliveDatagram("uuid:forged-" + std::to_string(i), "upnp:rootdevice", kRefusing));
  }
}

TEST_F(DatagramHostile, AFarewellForSomebodyElsesDeviceLastsUntilItSpeaksAgain) {
  ScriptedDevice device("uuid:victim", {"SwitchPower"});
  const std::string name = rig_.Meet(device);
  SsdpPeer("10.77.1.2").Send(ByebyeDatagram("uuid:victim", "uuid:victim"), kLibrary, kUdpPort);
  Say(ByebyeDatagram("uuid:somebody", "uuid:somebody"));
  ASSERT_TRUE(StillWorks(handle_));
  // A farewell through another interface is not this device's.
  EXPECT_FALSE(WasTold(2, name));
  ForgingSocket().Send(kStranger, kLibraryNumber, kUdpPort,
                       ByebyeDatagram("uuid:victim", "uuid:victim"));
  ASSERT_TRUE(WaitUntil([&] { return WasTold(2, name); }));
  HostLog::Clear();
  EXPECT_EQ(name, rig_.Meet(device));
}

TEST_F(DatagramHostile, AliveAndByebyeAThousandTimes) {
  DescriptionServer server(kPeer);
  FakeDevice device;
  device.udn = "uuid:flicker";
  device.services = vex_test::FakeServices(1, "/f");
  const std::string url = ServeDevice(server, "/d.xml", device);
  for (int i = 0; i < 1000; ++i) {
    SayAlive(device.udn, url);
    SayByebye(device.udn);
  }
  ASSERT_TRUE(StillWorks(handle_));
  // Whatever was caught in between, what was told last is how it stands.
  const auto told = [&] {
    std::vector<int> events;
    for (const auto& one : HostLog::Devices()) {
      if (one.udn == "uuid:flicker+lan0") events.push_back(one.event);
    }
    return events;
  };
  ASSERT_TRUE(WaitUntil([&] {
    SayAlive(device.udn, url);
    return !told().empty() && told().back() == 1;
  }));
  SayByebye(device.udn);
  ASSERT_TRUE(WaitUntil([&] { return told().back() == 2; }));
  const std::vector<int> events = told();
  for (std::size_t i = 1; i < events.size(); ++i) {
    EXPECT_FALSE(events[i] == 1 && events[i - 1] == 1) << i;
  }
}

TEST_F(DatagramHostile, AThousandAnswersInOneBurstAllBecomeDevices) {
  DescriptionServer server(kPeer);
  std::vector<std::string> answers;
  for (int i = 0; i < 1000; ++i) {
    FakeDevice device;
    device.udn = "uuid:burst-" + std::to_string(i);
    const std::string path = "/" + std::to_string(i) + ".xml";
    answers.push_back(SearchAnswerDatagram(device.udn + "::upnp:rootdevice", "upnp:rootdevice",
                                           ServeDevice(server, path, device)));
  }
  for (const std::string& answer : answers) Say(answer);
  EXPECT_TRUE(
      WaitUntil([] { return HostLog::Devices().size() == 1000; }, std::chrono::seconds(120)));
}

TEST_F(DatagramHostile, AQueueThatIsFullIsEmptiedAndTakesMore) {
  // The host's callback holds up the one sender's lane while its datagrams pile up.
  // It may be the last to leave.
  const auto gate = std::make_shared<vex_test::Gate>();
  HostLog::OnDevice([gate](const vex_test::ToldDevice&) { gate->Pass(); });
  ScriptedDevice device("uuid:first", {"SwitchPower"});
  device.SayAlive(kLibrary, kUdpPort);
  ASSERT_TRUE(WaitUntil([&] { return gate->waiting() == 1; }));
  // A farewell waits for that callback.
  device.SayByebye(kLibrary, kUdpPort);
  LogCapture log;
  const Stopwatch watch;
  int said = 0;
  EXPECT_TRUE(WaitUntil([&] {
    for (int i = 0; i < 500; ++i) SayAlive("uuid:piled-" + std::to_string(said++), kRefusing);
    return log.Holds("Too many datagrams are waiting, 1 dropped so far");
  }));
  EXPECT_GE(said, 10000);
  for (int i = 0; i < 3000; ++i) SayAlive("uuid:piled", kRefusing);
  int lines = 0;
  for (const auto& line : log.Lines()) {
    if (line.text.find("Too many datagrams are waiting") == 0) ++lines;
  }
  EXPECT_LE(lines, watch.Seconds());
  gate->Open();
  HostLog::OnDevice(nullptr);
}

}  // namespace
