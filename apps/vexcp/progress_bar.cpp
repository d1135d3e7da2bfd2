#include "progress_bar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vexcp {

namespace {

constexpr int kFallbackWidth = 80;
// Beside the bar: brackets, percent, size, rate, time.
constexpr int kTextWidth = 48;
constexpr double kRateMemorySeconds = 3;

int TerminalWidth() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                         : kFallbackWidth;
}

std::string TimeText(double seconds) {
  if (!(seconds < 100.0 * 3600)) return "--:--";
  const int whole = static_cast<int>(seconds + 0.5);
  char text[24];
  if (whole >= 3600) {
    std::snprintf(text, sizeof(text), "%d:%02d:%02d", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof(text), "%d:%02d", whole / 60, whole % 60);
  }
  return text;
}

}  // namespace

std::string SizeText(double bytes) {
  const char* const units[] = {"B", "kB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  while (bytes >= 999.5 && unit + 1 < std::size(units)) {
    bytes /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), unit == 0 || bytes >= 99.95 ? "%.0f %s" : "%.1f %s", bytes,
                units[unit]);
  return text;
}

ProgressBar::ProgressBar(long long done)
    : terminal_(isatty(STDERR_FILENO) == 1), first_(done), last_done_(done) {}

double ProgressBar::Seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void ProgressBar::UpdateRate(long long done) {
  const Clock::time_point now = Clock::now();
  const double passed = std::chrono::duration<double>(now - last_time_).count();
  if (passed <= 0) return;
  const double current = static_cast<double>(done - last_done_) / passed;
  const double weight = last_done_ == first_ ? 1 : 1 - std::exp(-passed / kRateMemorySeconds);
  rate_ += weight * (current - rate_);
  last_time_ = now;
  last_done_ = done;
}

void ProgressBar::Draw(long long done, const std::optional<long long>& total) {
  if (!terminal_) return;
  UpdateRate(done);
  std::string line = SizeText(static_cast<double>(done)) + "  " + SizeText(rate_) + "/s";
  if (total && *total > 0) {
    const double share = static_cast<double>(done) / static_cast<double>(*total);
    const int cells = std::max(10, TerminalWidth() - kTextWidth);
    const int full = std::clamp(static_cast<int>(share * cells), 0, cells);
    std::string bar(static_cast<std::size_t>(full), '=');
    if (full < cells) bar += '>';
    bar.resize(static_cast<std::size_t>(cells), ' ');
    char percent[8];
    std::snprintf(percent, sizeof(percent), "%3d%%", static_cast<int>(share * 100));
    line = "[" + bar + "] " + percent + "  " + line + "  " +
           TimeText(rate_ > 0 ? static_cast<double>(*total - done) / rate_ : INFINITY) + " left";
  }
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
}

void ProgressBar::Finish(long long done, const std::optional<long long>& total,
                         const std::string& name) {
  if (terminal_) {
    Draw(done, total);
    std::fputc('\n', stderr);
  }
  const double seconds = Seconds();
  const double moved = static_cast<double>(done - first_);
  std::fprintf(stderr, "%s: %lld bytes", name.c_str(), done);
  if (first_ != 0) std::fprintf(stderr, ", %s of them now", SizeText(moved).c_str());
  std::fprintf(stderr, " in %.1f s, %s/s\n", seconds,
               SizeText(seconds > 0 ? moved / seconds : 0).c_str());
}

}  // namespace vexcp
