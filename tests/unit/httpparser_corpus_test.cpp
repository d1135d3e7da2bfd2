#include <dirent.h>
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "tests/support/any_cut.h"

namespace vex_upnp {
namespace utils {
namespace {

using vex_test::ParsedMessage;

constexpr char kFolder[] = VEX_SOURCE_DIR "/tests/fuzz/corpus/http_parser/";

// The messages that fuzzing starts from: of real devices, and odd ones.
std::map<std::string, std::string> Corpus() {
  std::map<std::string, std::string> files;
  DIR* const folder = opendir(kFolder);
  for (dirent* entry = nullptr; folder != nullptr && (entry = readdir(folder)) != nullptr;) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::ifstream file(kFolder + name, std::ios::binary);
    files[name].assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  if (folder != nullptr) closedir(folder);
  return files;
}

TEST(HttpParserCorpus, IsTheSameHoweverItIsCut) {
  const std::map<std::string, std::string> files = Corpus();
  EXPECT_LE(20U, files.size());
  for (const auto& file : files) {
    SCOPED_TRACE(file.first);
    const ParsedMessage whole = vex_test::CutFeeder(file.second).Whole();
    if (!vex_test::CutMatters(whole)) vex_test::ParseAnyCut(file.second);
  }
}

TEST(HttpParserCorpus, MessagesOfRealDevicesAreComplete) {
  std::map<std::string, std::string> files = Corpus();
  const struct {
    const char* name;
    unsigned int code;
    const char* header;
    const char* value;
  } rows[] = {
      {"alive_gupnp", 0, "NT", "upnp:rootdevice"},
      {"alive_no_blanks", 0, "NT", "urn:schemas-upnp-org:device:MediaServer:1"},
      {"byebye", 0, "NTS", "ssdp:byebye"},
      {"search_answer", 200, "ST", "upnp:rootdevice"},
      {"search_answer_2", 200, "ST", "urn:schemas-upnp-org:device:MediaServer:3"},
      {"event", 0, "NTS", "upnp:propchange"},
      {"subscribe_answer", 200, "Timeout", "Second-300"},
      {"action_answer", 200, "EXT", ""},
      {"action_fault", 500, "Connection", "close"},
      {"description", 200, "Content-Type", "text/xml"},
  };
  for (const auto& row : rows) {
    const ParsedMessage parsed = vex_test::CutFeeder(files[row.name]).Whole();
    EXPECT_EQ(1, parsed.state) << row.name;
    EXPECT_EQ(row.code, parsed.code) << row.name;
    EXPECT_THAT(parsed.headers, testing::Contains(testing::Pair(testing::StrCaseEq(row.header),
                                                                testing::HasSubstr(row.value))))
        << row.name;
    if (parsed.content_length == 0) continue;
    EXPECT_EQ(parsed.content_length, parsed.body.size()) << row.name;
  }
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
