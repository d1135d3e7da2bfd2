// Every exported function stands in one of the tables of calls without memory.

#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace vex_test {
namespace {

constexpr char kTable[] = "fault_memory_";
constexpr char kThisFile[] = "fault_memory_complete_test.cpp";
constexpr char kRow[] = "FailEach(";

std::string ReadAll(const std::string& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// "# vex_upnp::x::F(int) const" tells of vex_upnp::x::F. What is no function, and the constructors
// and destructors, which a table's rows use all the time, have no row of their own.
std::string FunctionOf(const std::string& line) {
  if (line.compare(0, 2, "# ") != 0) return std::string();
  std::string name = line.substr(2);
  for (const char* other : {"vtable for ", "typeinfo ", "What libvexupnpcp.so", "Written by "}) {
    if (name.compare(0, std::string(other).size(), other) == 0) return std::string();
  }
  const bool mangled_otherwise = name.find('(') == std::string::npos;
  if (mangled_otherwise && name.find("::") != std::string::npos) return std::string();
  name.resize(std::min(name.size(), name.find('(')));
  const std::size_t last = name.rfind("::");
  const std::string own = last == std::string::npos ? name : name.substr(last + 2);
  const std::string above = last == std::string::npos ? "" : name.substr(0, last);
  const bool is_constructor =
      above.size() >= own.size() && above.compare(above.size() - own.size(), own.size(), own) == 0;
  // Private, and exported with its class only.
  const bool is_private = name == "vex_upnp::utils::Timer::ExistingService";
  return is_constructor || is_private || own[0] == '~' ? std::string() : name;
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

// The name may stand on the next line.
void AddRows(const std::string& text, std::set<std::string>& rows) {
  const std::string row = kRow;
  for (std::size_t at = text.find(row); at != std::string::npos; at = text.find(row, at + 1)) {
    const std::size_t quote = text.find_first_not_of(" \n", at + row.size());
    if (quote == std::string::npos || text[quote] != '"') continue;
    rows.insert(text.substr(quote + 1, text.find('"', quote + 1) - quote - 1));
  }
}

std::set<std::string> Rows() {
  std::set<std::string> rows;
  for (const std::string folder :
       {VEX_SOURCE_DIR "/tests/unit", VEX_SOURCE_DIR "/tests/scenario"}) {
    DIR* const entries = ::opendir(folder.c_str());
    EXPECT_NE(nullptr, entries);
    while (const dirent* const entry = ::readdir(entries)) {
      const std::string name = entry->d_name;
      // This file itself only spells what a row begins with.
      if (name.find(kTable) == 0 && name != kThisFile) AddRows(ReadAll(folder + "/" + name), rows);
    }
    ::closedir(entries);
  }
  return rows;
}

TEST(FaultMemoryTables, EveryExportedFunctionHasARow) {
  const std::set<std::string> rows = Rows();
  const std::set<std::string> functions = ExportedFunctions();
  EXPECT_GT(functions.size(), 250U);
  for (const std::string& function : functions) EXPECT_EQ(1U, rows.count(function)) << function;
}

TEST(FaultMemoryTables, EveryRowNamesAnExportedFunction) {
  const std::set<std::string> functions = ExportedFunctions();
  for (const std::string& row : Rows()) EXPECT_EQ(1U, functions.count(row)) << row;
}

}  // namespace
}  // namespace vex_test
