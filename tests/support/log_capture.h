#ifndef VEXUPNPCP_TESTS_SUPPORT_LOG_CAPTURE_H_
#define VEXUPNPCP_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <string>
#include <vector>

namespace vex_test {

struct LogLine {
  int level;
  std::string tag;
  std::string file;
  std::string function;
  int line;
  // What stands behind "file: function(line) > ".
  std::string text;
};

// Collects the library's log lines from here to the end of the scope. The test programs provide
// the platform's log sink themselves; with no capture alive its lines go nowhere. One at a time.
class LogCapture {
 public:
  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  std::vector<LogLine> Lines() const;
  // How often a line with exactly this text, level and tag came.
  int Count(int level, const std::string& tag, const std::string& text) const;
  // The same, whatever its level and tag.
  int Count(const std::string& text) const;
  // Whether a line holds this piece of text.
  bool Holds(const std::string& piece) const;
  void Clear();
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_LOG_CAPTURE_H_
