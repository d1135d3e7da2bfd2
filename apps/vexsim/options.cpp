#include "options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <filesystem>
#include <map>

#include "text.h"

namespace vexsim {

namespace {

namespace fs = std::filesystem;

constexpr char kDescription[] =
    "vexsim plays UPnP devices on this network: it answers searches, announces, serves "
    "descriptions\n"
    "and takes commands while it runs. It is test equipment; use it in a network of its own.";

constexpr char kFooter[] = R"(
Commands, one a line, on standard input or on the control socket; each gets one line of answer:
  list                              what runs: id, name, UDN, location
  add FOLDER [count=N] [services=K] more devices, announced at once
  remove ID|all                     byebye, and gone
  kill ID|all                       gone without a byebye; the port closes unless it is shared
  revive ID|all                     a killed device comes back and announces itself
  announce ID|all                   alive once more
  answers mx|window=MS|burst|off    when search answers leave
  fault PATTERN KEY[=VALUE]...      answers for paths like "/3/*" or "*/description.xml" go wrong:
                                    delay=MS status=CODE cut=BYTES reset chunked=SIZE no-length
                                    garbage=BYTES silent rate=BYTES_PER_SECOND times=N
  fault clear [PATTERN]             as before
  set ID SERVICE.VARIABLE VALUE     as "set 1 SwitchPower.Status 1"; subscribers are told
  get ID SERVICE.VARIABLE           its value
  action PATTERN error=CODE [description=TEXT] [times=N]
                                    calls like "1/SwitchPower.*" get this UPnP error
  action clear                      as before
  events [before|after|never|late=MS] [merged|apart] [timeout=SECONDS]
                                    when a new subscriber gets its first event, against the answer;
                                    the longest time granted; answers how many subscriptions there are
  interfaces                        look for new interfaces
  stats [reset]                     what has been asked and answered
  quit                              byebye for all, and the end

Examples:
  vexsim lamp renderer mediaserver
  vexsim generated --count 1000 --services 3 --answers window=200 --no-announce
  echo 'kill 1' | nc -UN /run/sim.sock       (with --control /run/sim.sock)

Status: 0 after quit or a signal, 1 when it could not start, 2 for wrong arguments.
)";

std::string DefaultDevicesDir() {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  const fs::path installed = program.parent_path().parent_path() / "share/vexsim/devices";
  if (!error && fs::is_directory(installed, error)) return installed.string();
  return VEXSIM_DEVICES_DIR;
}

std::string CheckTiming(const std::string& text) {
  AnswerTiming timing;
  return ParseTiming(text, timing) ? std::string() : "expected mx, window=MS, burst or off";
}

}  // namespace

bool ParseTiming(const std::string& text, AnswerTiming& timing) {
  constexpr std::string_view kWindow = "window=";
  if (text == "mx") {
    timing.kind = AnswerTiming::Kind::kMx;
  } else if (text == "burst") {
    timing.kind = AnswerTiming::Kind::kBurst;
  } else if (text == "off") {
    timing.kind = AnswerTiming::Kind::kOff;
  } else if (text.compare(0, kWindow.size(), kWindow) == 0) {
    const auto number = ToNumber<unsigned>(std::string_view(text).substr(kWindow.size()));
    if (!number) return false;
    timing.kind = AnswerTiming::Kind::kWindow;
    timing.window = Milliseconds(*number);
  } else {
    return false;
  }
  return true;
}

std::string KnownDevices(const std::string& devices_dir) {
  std::vector<std::string> names{kGeneratedName};
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(devices_dir, error))
    if (entry.is_directory()) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::optional<int> ParseArguments(int argc, char** argv, Options& options) {
  options.devices_dir = DefaultDevicesDir();
  std::string answers = "mx";
  unsigned merge = 0;
  bool no_announce = false;
  const std::map<std::string, PortUse> port_uses{
      {"auto", PortUse::kAuto}, {"own", PortUse::kOwn}, {"shared", PortUse::kShared}};

  CLI::App app{kDescription, "vexsim"};
  app.footer(kFooter);
  app.add_option(
      "devices", options.devices,
      "device folders, by name (" + KnownDevices(options.devices_dir) + ") or path; default lamp");
  app.add_option("--devices", options.devices_dir, "where named folders lie")
      ->capture_default_str();
  app.add_option("-n,--count", options.count, "devices made of each folder")->capture_default_str();
  app.add_option("--services", options.services, "services of generated devices")
      ->check(CLI::Range(0U, 1000U))
      ->capture_default_str();
  app.add_option("-i,--interface", options.ssdp.interface_names,
                 "interface to work on; default all but loopback");
  app.add_option("--answers", answers, "when search answers leave: mx, window=MS, burst, off")
      ->check(CheckTiming)
      ->capture_default_str();
  app.add_option("--merge", merge, "answer equal searches within MS only once")
      ->capture_default_str();
  app.add_option("--copies", options.ssdp.copies, "how often each announcement is sent")
      ->capture_default_str();
  app.add_option("--max-age", options.ssdp.max_age, "seconds, as announced")->capture_default_str();
  app.add_option("--announce-interval", options.announce_interval_s,
                 "seconds between announcements; 0 for only one")
      ->capture_default_str();
  app.add_flag("--no-announce", no_announce, "come up without a word");
  app.add_option("--ports", options.ports,
                 "a TCP port for each device (own), one for all (shared), or own for up to 100 "
                 "(auto)")
      ->transform(CLI::CheckedTransformer(port_uses).description("auto|own|shared"));
  app.add_option("--port", options.port, "first TCP port; 0 for free ones")->capture_default_str();
  app.add_flag("--close", options.close_connections, "close each connection after one answer");
  app.add_option("--seed", options.seed, "text that the UDNs are made from")->capture_default_str();
  app.add_option("--control", options.control_socket, "unix socket for commands");
  app.add_flag("--json", options.json, "answer commands with one JSON object a line");
  app.add_flag("--exit-with-stdin", options.exit_with_stdin, "end when standard input ends");
  app.add_flag("--silent-exit", options.silent_exit, "no byebye at the end");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  ParseTiming(answers, options.ssdp.timing);
  options.ssdp.merge = Milliseconds(merge);
  options.announce_at_start = !no_announce;
  if (options.devices.empty()) options.devices.emplace_back("lamp");
  return std::nullopt;
}

}  // namespace vexsim
