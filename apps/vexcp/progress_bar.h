#ifndef VEXCP_PROGRESS_BAR_H_
#define VEXCP_PROGRESS_BAR_H_

#include <chrono>
#include <optional>
#include <string>

namespace vexcp {

// "12.3 MB"
std::string SizeText(double bytes);

// How a transfer goes on, on one line of the standard error when that is a terminal.
class ProgressBar {
 public:
  // `done` bytes were there before this transfer began.
  explicit ProgressBar(long long done);

  void Draw(long long done, const std::optional<long long>& total);
  // Leaves the last line and says how it went, also when there is no terminal.
  void Finish(long long done, const std::optional<long long>& total, const std::string& name);

 private:
  using Clock = std::chrono::steady_clock;

  double Seconds() const;
  void UpdateRate(long long done);

  const bool terminal_;
  const long long first_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point last_time_ = start_;
  long long last_done_;
  // Bytes a second, of the last seconds more than of earlier ones.
  double rate_ = 0;
};

}  // namespace vexcp

#endif  // VEXCP_PROGRESS_BAR_H_
