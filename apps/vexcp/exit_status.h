#ifndef VEXCP_EXIT_STATUS_H_
#define VEXCP_EXIT_STATUS_H_

#include <stdexcept>
#include <string>

namespace vexcp {

// What the program ends with; --help tells them.
constexpr int kDone = 0;
constexpr int kNotFound = 1;
constexpr int kWrongArguments = 2;
constexpr int kNoInterface = 3;
constexpr int kNotStarted = 4;
constexpr int kRefused = 5;
constexpr int kBrokenOff = 6;

constexpr char kExitStatusHelp[] = R"(
Exit status:
  0  done
  1  nothing was found: no device, not that device, service or action
  2  wrong arguments
  3  no network interface to work on
  4  the control point could not start
  5  the device or server refused what was asked of it, or gave no answer
  6  a transfer broke off, or could not be stored
)";

// Ends the program with a status and a text that says what to do.
class Failure : public std::runtime_error {
 public:
  Failure(int exit_status, const std::string& text)
      : std::runtime_error(text), status_(exit_status) {}
  int status() const { return status_; }

 private:
  int status_;
};

}  // namespace vexcp

#endif  // VEXCP_EXIT_STATUS_H_
