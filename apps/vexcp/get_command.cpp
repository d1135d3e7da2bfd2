#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "commands.h"
#include "download.h"
#include "exit_status.h"
#include "output.h"
#include "progress_bar.h"

namespace vexcp {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kRedraw{200};
constexpr int kMostRedirects = 5;
constexpr char kStandardOutput[] = "-";

struct GetOptions {
  std::string url;
  std::string file;
  bool resume = false;
  unsigned tries = 3;
  bool http_1_0 = false;
};

// Where the bytes go.
class Target {
 public:
  Target(const std::string& name, bool resume) : name_(name) {
    if (name == kStandardOutput) {
      descriptor_ = STDOUT_FILENO;
      return;
    }
    // Not emptied: the server may have nothing to put in place of what it holds.
    descriptor_ = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (descriptor_ < 0)
      throw Failure(kWrongArguments, name + " cannot be written: " + std::strerror(errno));
    if (resume) offset_ = lseek(descriptor_, 0, SEEK_END);
    if (offset_ < 0) offset_ = 0;
  }
  ~Target() {
    if (name_ != kStandardOutput) close(descriptor_);
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  int descriptor() const { return descriptor_; }
  // Where the fetching begins: behind what is there already, if that is to be continued.
  long long offset() const { return offset_; }
  bool may_restart() const { return name_ != kStandardOutput; }
  std::string Title() const {
    return name_ == kStandardOutput ? "standard output" : Printable(name_);
  }

 private:
  const std::string name_;
  int descriptor_ = -1;
  long long offset_ = 0;
};

bool IsRedirect(unsigned status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::string Why(const Download::Progress& end) {
  switch (end.state) {
    case Download::State::kRefused:
      return "the server answered with status " + std::to_string(end.status);
    case Download::State::kOtherRange:
      return "the server does not go on where the file ends; fetch it without --continue";
    case Download::State::kChanged:
      return "the file has changed on the server meanwhile; fetch it without --continue";
    case Download::State::kNoHttp:
      return "what the server answered is no HTTP";
    case Download::State::kNotStored:
      return std::string("the file cannot be written: ") + std::strerror(end.error);
    default:
      return end.status == 0 ? "the server cannot be reached, or ended without an answer"
             : end.total     ? "the transfer broke off after " + std::to_string(end.done) + " of " +
                               std::to_string(*end.total) + " bytes"
                         : "the transfer broke off after " + std::to_string(end.done) + " bytes";
  }
}

// Until the transfer has ended or the user wants to end.
Download::Progress Watch(EventQueue& events, Download& download, ProgressBar& bar) {
  for (;;) {
    const Download::Progress progress = download.progress();
    if (progress.state != Download::State::kRunning) return progress;
    bar.Draw(progress.done, progress.total);
    events.Next(std::chrono::steady_clock::now() + kRedraw);
    if (events.interrupted()) {
      download.Stop();
      return download.progress();
    }
  }
}

int Get(const GetOptions& options) {
  HttpUrl url = ParseHttpUrl(options.url);
  const std::string name = options.file.empty() ? url.FileName() : options.file;
  EventQueue events;
  const Target target(name, options.resume);
  Download download(
      events, target.descriptor(),
      options.http_1_0 ? vex_upnp::streaming::HTTP_1_0 : vex_upnp::streaming::HTTP_1_1);
  ProgressBar bar(target.offset());
  long long offset = target.offset();
  int redirects = 0;
  for (unsigned failures = 0;;) {
    download.Start(url, offset, target.may_restart());
    const Download::Progress end = Watch(events, download, bar);
    if (end.state == Download::State::kComplete) {
      bar.Finish(end.done, end.total, target.Title());
      return kDone;
    }
    if (events.interrupted()) throw Failure(kBrokenOff, "ended by the user; --continue goes on");
    const bool nothing_left = end.state == Download::State::kRefused && end.status == 416 &&
                              offset > 0 && end.total == offset;
    if (nothing_left) {
      std::fprintf(stderr, "%s: complete already\n", target.Title().c_str());
      return kDone;
    }
    if (IsRedirect(end.status) && !end.location.empty() && redirects++ < kMostRedirects) {
      url = url.Follow(end.location);
      continue;
    }
    if (end.state == Download::State::kPartDone) {
      offset = end.done;
      continue;
    }
    const bool went_on = end.state == Download::State::kBrokenOff && end.done > offset;
    if (!went_on || ++failures >= options.tries) {
      const bool refused = end.status == 0 || end.state == Download::State::kRefused;
      throw Failure(refused ? kRefused : kBrokenOff, Why(end));
    }
    // On from where it broke off.
    offset = end.done;
  }
}

}  // namespace

void AddGetCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<GetOptions>();
  CLI::App* command = app.add_subcommand("get", "fetch a file by HTTP");
  command->add_option("url", options->url, "http://HOST[:PORT]/PATH")->required();
  command->add_option("-o,--output", options->file,
                      "file to write, \"-\" for the standard output; default the URL's last piece");
  command->add_flag("-c,--continue", options->resume, "go on where an existing file ends");
  command->add_option("--tries", options->tries, "how often a transfer that breaks off is tried")
      ->check(CLI::Range(1U, 1000U))
      ->capture_default_str();
  command->add_flag("-0,--http1.0", options->http_1_0,
                    "ask as HTTP/1.0, for a server that answers HTTP/1.1 badly");
  command->callback([options, &run] { run = [options] { return Get(*options); }; });
}

}  // namespace vexcp
