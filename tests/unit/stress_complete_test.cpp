// Every exported function is called by the host threads of the stress test, or has a reason why
// not.

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

namespace vex_test {
namespace {

constexpr char kFrameworkStarts[] =
    "the main thread of the test calls what starts and stops the framework, and that calls this";
constexpr char kHostStarts[] =
    "a start or stop below InitializeGenericCP and TerminateGenericCP, which call it in each life";
constexpr char kPrivate[] = "private, and exported with its class only";

// Those that no host thread calls, by their whole names.
const std::map<std::string, std::string>& LeftOut() {
  static const std::map<std::string, std::string> left_out = {
      {"vex_upnp::network_layer::InitializeNetworkLayer", kFrameworkStarts},
      {"vex_upnp::network_layer::StartNetworkLayer", kFrameworkStarts},
      {"vex_upnp::network_layer::StopNetworkLayer", kFrameworkStarts},
      {"vex_upnp::network_layer::TerminateNetworkLayer", kFrameworkStarts},
      {"vex_upnp::network_layer::InitializeNetworkMonitor", kFrameworkStarts},
      {"vex_upnp::network_layer::TerminateNetworkMonitor", kFrameworkStarts},
      {"vex_upnp::framework_core::InitializeUPnP", kHostStarts},
      {"vex_upnp::framework_core::TerminateUPnP", kHostStarts},
      {"vex_upnp::cp_control::Terminate", kHostStarts},
      {"vex_upnp::cp_discovery::Terminate", kHostStarts},
      {"vex_upnp::utils::Timer::InitializeManager", kHostStarts},
      {"vex_upnp::utils::Timer::TerminateManager", kHostStarts},
      {"vex_upnp::utils::Timer::GetInstance", "a plain pointer that Start and Cancel look up"},
      {"vex_upnp::utils::Timer::ExistingService", kPrivate},
  };
  return left_out;
}

// "# vex_upnp::x::F(int) const" tells of vex_upnp::x::F. What is no function has no name here, nor
// have constructors and destructors, which run with every object.
std::string FunctionOf(const std::string& line) {
  if (line.compare(0, 2, "# ") != 0) return std::string();
  std::string name = line.substr(2);
  for (const char* other : {"vtable for ", "typeinfo ", "What libvexupnpcp.so", "Written by "}) {
    if (name.compare(0, std::string(other).size(), other) == 0) return std::string();
  }
  const bool is_data = name.find('(') == std::string::npos && name.find("::") != std::string::npos;
  if (is_data) return std::string();
  name.resize(std::min(name.size(), name.find('(')));
  const std::size_t last = name.rfind("::");
  const std::string own = last == std::string::npos ? name : name.substr(last + 2);
  const std::string above = last == std::string::npos ? "" : name.substr(0, last);
  const bool is_constructor =
      above.size() >= own.size() && above.compare(above.size() - own.size(), own.size(), own) == 0;
  return is_constructor || own[0] == '~' ? std::string() : name;
}

std::set<std::string> ExportedFunctions() {
  std::set<std::string> functions;
  std::ifstream list(VEX_SOURCE_DIR "/tests/abi/exported_symbols.txt");
  for (std::string line; std::getline(list, line);) {
    const std::string function = FunctionOf(line);
    if (!function.empty()) functions.insert(function);
  }
  return functions;
}

bool IsNamePart(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// The names in front of opening brackets, without what qualifies them.
void AddCalls(const std::string& text, std::set<std::string>& calls) {
  for (std::size_t at = text.find('('); at != std::string::npos; at = text.find('(', at + 1)) {
    std::size_t begin = at;
    while (begin > 0 && IsNamePart(text[begin - 1])) --begin;
    if (begin < at) calls.insert(text.substr(begin, at - begin));
  }
}

std::set<std::string> Calls() {
  std::set<std::string> calls;
  const std::string folder = VEX_SOURCE_DIR "/tests/stress";
  DIR* const entries = ::opendir(folder.c_str());
  EXPECT_NE(nullptr, entries);
  if (entries == nullptr) return calls;
  while (const dirent* const entry = ::readdir(entries)) {
    const std::string name = entry->d_name;
    if (name.find(".cpp") == std::string::npos) continue;
    std::ifstream file(folder + "/" + name);
    AddCalls(std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()),
             calls);
  }
  ::closedir(entries);
  return calls;
}

std::string OwnName(const std::string& function) {
  const std::size_t last = function.rfind("::");
  return last == std::string::npos ? function : function.substr(last + 2);
}

TEST(StressTables, EveryExportedFunctionIsCalledOrLeftOutWithAReason) {
  const std::set<std::string> calls = Calls();
  const std::set<std::string> functions = ExportedFunctions();
  EXPECT_GT(functions.size(), 250U);
  for (const std::string& function : functions) {
    const bool called = calls.count(OwnName(function)) != 0;
    EXPECT_TRUE(called || LeftOut().count(function) != 0) << function;
  }
}

TEST(StressTables, WhatIsLeftOutIsExportedAndReallyLeftOut) {
  const std::set<std::string> calls = Calls();
  const std::set<std::string> functions = ExportedFunctions();
  for (const auto& one : LeftOut()) {
    EXPECT_EQ(1U, functions.count(one.first)) << one.first;
    EXPECT_EQ(0U, calls.count(OwnName(one.first))) << one.first;
    EXPECT_FALSE(one.second.empty()) << one.first;
  }
}

}  // namespace
}  // namespace vex_test
