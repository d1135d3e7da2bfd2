#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <string>
#include <vector>

#include "base/address_text.h"
#include "base/ascii_text.h"
#include "base/current_exception.h"
#include "base/delivery_list.h"
#include "base/host_memory.h"
#include "base/io_threads.h"
#include "base/log.h"
#include "base/number_text.h"
#include "base/port_search.h"
#include "base/use_count.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait_until.h"

namespace vex_upnp {
namespace {

using testing::ElementsAre;

TEST(AsciiText, LettersAreEqualInEitherCaseAndNothingElseIs) {
  EXPECT_TRUE(EqualsIgnoringCase("", ""));
  EXPECT_TRUE(EqualsIgnoringCase("CONTENT-LENGTH", "Content-Length"));
  EXPECT_TRUE(EqualsIgnoringCase("ABCDEFGHIJKLMNOPQRSTUVWXYZ", "abcdefghijklmnopqrstuvwxyz"));
  EXPECT_FALSE(EqualsIgnoringCase("a", "ab"));
  EXPECT_FALSE(EqualsIgnoringCase("ab", "a"));
  // What stands beside the letters, 32 apart.
  EXPECT_FALSE(EqualsIgnoringCase("@", "`"));
  EXPECT_FALSE(EqualsIgnoringCase("[", "{"));
  // Letters of other alphabets are bytes.
  EXPECT_FALSE(EqualsIgnoringCase("\xC0", "\xE0"));
  EXPECT_FALSE(EqualsIgnoringCase("\xC4\xB0", "\x69"));
  EXPECT_FALSE(EqualsIgnoringCase(std::string("a\0b", 3), std::string("a\0c", 3)));
}

TEST(AsciiText, OnlyCapitalLettersChange) {
  for (int code = 0; code < 256; ++code) {
    const bool capital = code >= 'A' && code <= 'Z';
    EXPECT_EQ(static_cast<char>(capital ? code + 32 : code), ToLowerAscii(static_cast<char>(code)));
  }
}

TEST(NumberText, WholeTextWithAnOptionalSign) {
  int value = -5;
  EXPECT_TRUE(ToNumber("42", value));
  EXPECT_EQ(42, value);
  EXPECT_TRUE(ToNumber("+7", value));
  EXPECT_EQ(7, value);
  EXPECT_TRUE(ToNumber("-2147483648", value));
  EXPECT_EQ(INT_MIN, value);
  EXPECT_TRUE(ToNumber("2147483647", value));
  EXPECT_EQ(INT_MAX, value);
}

TEST(NumberText, RefusesEverythingElseAndLeavesTheValue) {
  for (const char* text :
       {"", "+", "-", " 1", "1 ", "80a", "0x10", "1.5", "2147483648", "-2147483649", "--1"}) {
    int value = 99;
    EXPECT_FALSE(ToNumber(std::string(text), value)) << text;
    EXPECT_EQ(99, value) << text;
  }
}

TEST(NumberText, MinusNegatesAnUnsignedModuloItsRange) {
  unsigned int value = 0;
  EXPECT_TRUE(ToNumber("-1", value));
  EXPECT_EQ(UINT_MAX, value);
  unsigned long long wide = 0;
  EXPECT_TRUE(ToNumber("-1", wide));
  EXPECT_EQ(ULLONG_MAX, wide);
  EXPECT_FALSE(ToNumber("18446744073709551616", wide));
  EXPECT_FALSE(ToNumber("4294967296", value));
}

TEST(AddressText, IsTheDottedFormOfEveryAddress) {
  for (const char* text :
       {"0.0.0.0", "10.0.0.7", "127.0.0.1", "192.168.100.9", "255.255.255.255"}) {
    EXPECT_EQ(text, AddressText(boost::asio::ip::make_address(text)));
  }
  EXPECT_EQ("::1", AddressText(boost::asio::ip::make_address("::1")));
}

TEST(PortSearch, StopsAtTheFirstPortThatWorks) {
  int port = 5000;
  EXPECT_EQ(5, TryPorts(port, [](int candidate) { return candidate == 5004; }));
  EXPECT_EQ(5004, port);
}

TEST(PortSearch, GivesUpAfterAHundred) {
  int port = 5000;
  int tries = 0;
  EXPECT_EQ(0, TryPorts(port, [&](int) { return ++tries < 0; }));
  EXPECT_EQ(100, tries);
  EXPECT_EQ(5100, port);
}

TEST(Log, LineCarriesPlaceLevelAndTag) {
  vex_test::LogCapture log;
  VEX_LOG(kLogStep, log::kTagUtils, "value %d of %s", 7, "x");
  const std::vector<vex_test::LogLine> lines = log.Lines();
  ASSERT_EQ(1U, lines.size());
  EXPECT_EQ(4, lines[0].level);
  EXPECT_EQ("VEX_CORE_UTILS", lines[0].tag);
  EXPECT_EQ("base_test.cpp", lines[0].file);
  EXPECT_EQ("TestBody", lines[0].function);
  EXPECT_EQ("value 7 of x", lines[0].text);
}

TEST(Log, LongTextIsNotCut) {
  vex_test::LogCapture log;
  const std::string text(100000, 'a');
  VEX_LOG(kLogMajor, log::kTagUtils, "%s", text.c_str());
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", text));
}

TEST(CurrentException, KnownAndUnknownHaveTheirOwnLine) {
  vex_test::LogCapture log;
  try {
    throw std::string("no std::exception");
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagNetwork, "Exception: %s", "Unknown");
  }
  try {
    throw std::runtime_error("100%s");
  } catch (...) {
    LogCurrentException(VEX_LOG_SITE, kLogMajor, log::kTagNetwork, "Exception: %s!", "Unknown");
  }
  EXPECT_EQ(1, log.Count("Unknown"));
  EXPECT_EQ(1, log.Count("Exception: 100%s!"));
}

TEST(UseCount, RefusesAfterShutDown) {
  UseCount count;
  {
    UseCountGuard inside(count);
    EXPECT_TRUE(inside.entered());
    EXPECT_FALSE(count.ShutDownWhenIdle());
    EXPECT_EQ(1, count.value());
  }
  EXPECT_TRUE(count.ShutDownWhenIdle());
  EXPECT_EQ(-1, count.value());
  {
    UseCountGuard late(count);
    EXPECT_FALSE(late.entered());
  }
  EXPECT_EQ(-1, count.value());
}

struct Counted {
  UseCount count;
};

TEST(UseCount, AnInterruptedThreadEndsTheListenerAllTheSame) {
  boost::shared_ptr<Counted> instance(new Counted);
  boost::mutex mutex;
  std::atomic<bool> waited{false};
  ASSERT_EQ(0, instance->count.Increment());
  boost::thread host([&] {
    TerminateWhenIdle(instance, mutex, &Counted::count, [&](Counted&) { waited = true; });
  });
  host.interrupt();
  ASSERT_TRUE(vex_test::WaitUntil([&] { return waited.load(); }));
  {
    boost::lock_guard<boost::mutex> lock(mutex);
    ASSERT_TRUE(instance);
    instance->count.Decrement();
  }
  host.join();
  EXPECT_FALSE(instance);
}

TEST(IoThreads, NamesAreSetWhenTheStarterReturns) {
  io_service io;
  io_work work = KeepRunning(io);
  boost::thread_group threads;
  std::string prefix;
  ASSERT_TRUE(ThreadNamePrefix(prefix));
  EXPECT_EQ("tst", prefix);
  StartIoThreads(threads, io, 2, prefix, "VexTcpReq");
  EXPECT_EQ(2U, threads.size());
  std::string name;
  boost::mutex mutex;
  boost::asio::post(io, [&] {
    char text[16] = {};
    pthread_getname_np(pthread_self(), text, sizeof(text));
    boost::lock_guard<boost::mutex> lock(mutex);
    name = text;
  });
  work.reset();
  threads.join_all();
  EXPECT_TRUE(name == "tstVexTcpReq0" || name == "tstVexTcpReq1") << name;
}

TEST(HostMemory, EmptyTextIsEmptyInOneFamilyAndNullInTheOther) {
  const FreePtr<char> empty(CallocString(""));
  ASSERT_NE(nullptr, empty.get());
  EXPECT_STREQ("", empty.get());
  EXPECT_EQ(nullptr, MallocString(""));
  const FreePtr<char> text(MallocString("ab"));
  EXPECT_STREQ("ab", text.get());
}

TEST(DeliveryList, RemovedEntriesOutliveTheLockAndOrderStays) {
  DeliveryList<int> list;
  for (int i = 1; i <= 4; ++i) list.Append(boost::shared_ptr<int>(new int(i)));
  const std::list<boost::shared_ptr<int>> odd = list.Remove([](int i) { return i % 2 == 1; });
  ASSERT_EQ(2U, odd.size());
  EXPECT_EQ(1, *odd.front());
  EXPECT_EQ(3, *odd.back());
  std::vector<int> rest;
  for (const boost::shared_ptr<int>& entry : list.Snapshot()) rest.push_back(*entry);
  EXPECT_THAT(rest, ElementsAre(2, 4));
  EXPECT_EQ(4, *list.Find([](int i) { return i > 2; }));
  EXPECT_EQ(2U, list.TakeAll().size());
  EXPECT_TRUE(list.Empty());
}

}  // namespace
}  // namespace vex_upnp
