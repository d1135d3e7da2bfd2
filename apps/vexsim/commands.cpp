#include "commands.h"

#include <algorithm>
#include <stdexcept>

#include "text.h"

namespace vexsim {

namespace {

using nlohmann::json;

// Words are separated by blanks; double quotes keep blanks together.
Commands::Words Split(const std::string& line) {
  Commands::Words words;
  std::string word;
  bool quoted = false, started = false;
  for (const char c : line) {
    if (c == '"') {
      quoted = !quoted;
      started = true;
    } else if (!quoted && (c == ' ' || c == '\t' || c == '\r')) {
      if (started) words.push_back(word);
      word.clear();
      started = false;
    } else {
      word += c;
      started = true;
    }
  }
  if (started) words.push_back(word);
  return words;
}

struct KeyValue {
  std::string key;
  std::string value;
};

KeyValue SplitKey(const std::string& word) {
  const std::size_t equal = word.find('=');
  if (equal == std::string::npos) return {word, ""};
  return {word.substr(0, equal), word.substr(equal + 1)};
}

unsigned Count(const KeyValue& pair) {
  const auto number = ToNumber<unsigned>(pair.value);
  if (!number) throw std::runtime_error(pair.key + " wants a number");
  return *number;
}

void ApplyFaultWord(const KeyValue& pair, Fault& fault) {
  if (pair.key == "delay") {
    fault.delay_ms = Count(pair);
  } else if (pair.key == "status") {
    fault.status = static_cast<int>(Count(pair));
  } else if (pair.key == "cut") {
    fault.cut = Count(pair);
  } else if (pair.key == "reset") {
    fault.reset = true;
  } else if (pair.key == "chunked") {
    fault.chunk = std::max(Count(pair), 1U);
  } else if (pair.key == "no-length") {
    fault.no_length = true;
  } else if (pair.key == "garbage") {
    fault.garbage = Count(pair);
  } else if (pair.key == "silent") {
    fault.silent = true;
  } else if (pair.key == "rate") {
    fault.rate = Count(pair);
  } else if (pair.key == "times") {
    fault.times = static_cast<int>(Count(pair));
  } else {
    throw std::runtime_error("unknown fault " + pair.key);
  }
}

}  // namespace

Commands::Commands(Simulation& simulation, bool json, std::function<void()> quit)
    : simulation_(simulation),
      json_(json),
      quit_(std::move(quit)),
      handlers_{{"list", &Commands::List},
                {"add", &Commands::Add},
                {"remove", &Commands::Remove},
                {"kill", &Commands::Kill},
                {"revive", &Commands::Revive},
                {"announce", &Commands::Announce},
                {"answers", &Commands::Answers},
                {"fault", &Commands::SetFault},
                {"interfaces", &Commands::Interfaces},
                {"set", &Commands::Set},
                {"get", &Commands::Get},
                {"action", &Commands::SetActionFault},
                {"events", &Commands::Events},
                {"stats", &Commands::Stats},
                {"quit", &Commands::Quit}} {}

std::string Commands::Execute(const std::string& line) {
  json answer;
  try {
    const Words words = Split(line);
    if (words.empty()) throw std::runtime_error("no command");
    answer = Run(words);
    answer["ok"] = true;
  } catch (const std::exception& error) {
    answer = json{{"ok", false}, {"error", error.what()}};
  }
  return Format(answer);
}

std::string Commands::ReadyLine() {
  json answer = Interfaces({});
  answer["ok"] = true;
  answer["event"] = "ready";
  answer["devices"] = simulation_.fleet().devices().size();
  return Format(answer);
}

json Commands::Run(const Words& words) {
  const auto handler = handlers_.find(words[0]);
  if (handler == handlers_.end())
    throw std::runtime_error("unknown command " + words[0] + "; vexsim --help lists them");
  return (this->*handler->second)(words);
}

std::string Commands::Format(const json& answer) const {
  if (json_) return answer.dump();
  if (!answer.at("ok").get<bool>()) return "error: " + answer.at("error").get<std::string>();
  std::string text = answer.value("event", "ok");
  for (const auto& [key, value] : answer.items())
    if (key != "ok" && key != "event") text += " " + key + "=" + value.dump();
  return text;
}

json Commands::Describe(const Device& device) {
  json udns = json::array();
  for (std::size_t n = 0; n < device.DeviceCount(); ++n) udns.push_back(device.Udn(n));
  json locations = json::array();
  for (const Interface& interface : simulation_.ssdp().interfaces())
    locations.push_back(device.Location(interface.text + ":" + std::to_string(device.port)));
  return json{
      {"id", device.id()},     {"name", device.FriendlyName()}, {"folder", device.folder().name},
      {"alive", device.alive}, {"port", device.port},           {"udns", udns},
      {"locations", locations}};
}

json Commands::List(const Words&) {
  json devices = json::array();
  for (const auto& [id, device] : simulation_.fleet().devices())
    devices.push_back(Describe(*device));
  return json{{"devices", devices}};
}

json Commands::Add(const Words& words) {
  if (words.size() < 2) throw std::runtime_error("add wants a folder");
  unsigned count = 1, services = 3;
  for (std::size_t i = 2; i < words.size(); ++i) {
    const KeyValue pair = SplitKey(words[i]);
    if (pair.key == "count") {
      count = Count(pair);
    } else if (pair.key == "services") {
      services = Count(pair);
    } else {
      throw std::runtime_error("add knows count=N and services=K");
    }
  }
  const std::vector<unsigned> ids = simulation_.Add(words[1], count, services);
  for (const unsigned id : ids) simulation_.ssdp().Announce(*simulation_.fleet().Find(id));
  return json{{"ids", ids}};
}

json Commands::ForEach(const Words& words, const std::function<void(Device&)>& action) {
  if (words.size() != 2) throw std::runtime_error(words[0] + " wants one id, or all");
  std::vector<unsigned> ids;
  if (words[1] == "all") {
    for (const auto& [id, device] : simulation_.fleet().devices()) ids.push_back(id);
  } else {
    ids.push_back(FindDevice(words[1]).id());
  }
  for (const unsigned id : ids) action(*simulation_.fleet().Find(id));
  return json{{"ids", ids}};
}

json Commands::Remove(const Words& words) {
  return ForEach(words, [this](Device& device) { simulation_.Remove(device.id(), false); });
}

json Commands::Kill(const Words& words) {
  return ForEach(words, [this](Device& device) { simulation_.Kill(device); });
}

json Commands::Revive(const Words& words) {
  return ForEach(words, [this](Device& device) { simulation_.Revive(device); });
}

json Commands::Announce(const Words& words) {
  return ForEach(words, [this](Device& device) {
    if (device.alive) simulation_.ssdp().Announce(device);
  });
}

json Commands::Answers(const Words& words) {
  AnswerTiming timing;
  if (words.size() != 2 || !ParseTiming(words[1], timing))
    throw std::runtime_error("answers wants mx, window=MS, burst or off");
  simulation_.ssdp().SetTiming(timing);
  return json::object();
}

json Commands::SetFault(const Words& words) {
  if (words.size() < 2) throw std::runtime_error("fault wants a path pattern, or clear");
  FaultList& faults = simulation_.http().faults();
  if (words[1] == "clear")
    return json{{"cleared", faults.Clear(words.size() > 2 ? words[2] : std::string())}};
  if (words.size() < 3) throw std::runtime_error("fault wants to know what goes wrong");
  Fault fault;
  fault.pattern = words[1];
  for (std::size_t i = 2; i < words.size(); ++i) ApplyFaultWord(SplitKey(words[i]), fault);
  faults.Add(fault);
  return json::object();
}

json Commands::Interfaces(const Words& words) {
  if (!words.empty()) simulation_.ssdp().RefreshInterfaces();
  json list = json::array();
  for (const Interface& interface : simulation_.ssdp().interfaces())
    list.push_back(interface.name + " " + interface.text);
  return json{{"interfaces", list}};
}

Device& Commands::FindDevice(const std::string& word) {
  const auto id = ToNumber<unsigned>(word);
  Device* device = id ? simulation_.fleet().Find(*id) : nullptr;
  if (device == nullptr) throw std::runtime_error("no device " + word);
  return *device;
}

json Commands::Set(const Words& words) {
  if (words.size() != 4) throw std::runtime_error("set wants an id, Service.Variable and a value");
  if (!simulation_.services().Set(FindDevice(words[1]), words[2], words[3]))
    throw std::runtime_error("no variable " + words[2]);
  return json::object();
}

json Commands::Get(const Words& words) {
  if (words.size() != 3) throw std::runtime_error("get wants an id and Service.Variable");
  const std::optional<std::string> value =
      simulation_.services().Get(FindDevice(words[1]), words[2]);
  if (!value) throw std::runtime_error("no variable " + words[2]);
  return json{{"value", *value}};
}

json Commands::SetActionFault(const Words& words) {
  std::vector<ActionFault>& faults = simulation_.services().faults();
  if (words.size() == 2 && words[1] == "clear") {
    faults.clear();
    return json::object();
  }
  if (words.size() < 3) throw std::runtime_error("action wants ID/Service.Action and error=CODE");
  ActionFault fault;
  fault.pattern = words[1];
  for (std::size_t i = 2; i < words.size(); ++i) {
    const KeyValue pair = SplitKey(words[i]);
    if (pair.key == "error") {
      fault.code = static_cast<int>(Count(pair));
    } else if (pair.key == "description") {
      fault.description = pair.value;
    } else if (pair.key == "times") {
      fault.times = static_cast<int>(Count(pair));
    } else {
      throw std::runtime_error("action knows error=CODE, description=TEXT and times=N");
    }
  }
  if (fault.code == 0) throw std::runtime_error("action wants error=CODE, a number above 0");
  faults.push_back(fault);
  return json::object();
}

json Commands::Events(const Words& words) {
  EventOptions& options = simulation_.services().events().options();
  for (std::size_t i = 1; i < words.size(); ++i) {
    const KeyValue pair = SplitKey(words[i]);
    if (pair.key == "before") {
      options.initial = EventOptions::Initial::kBefore;
    } else if (pair.key == "after") {
      options.initial = EventOptions::Initial::kAfter;
    } else if (pair.key == "never") {
      options.initial = EventOptions::Initial::kNever;
    } else if (pair.key == "late") {
      options.initial = EventOptions::Initial::kLate;
      options.late = Milliseconds(Count(pair));
    } else if (pair.key == "timeout") {
      options.timeout_s = Count(pair);
    } else if (pair.key == "merged" || pair.key == "apart") {
      options.merged = pair.key == "merged";
    } else {
      throw std::runtime_error(
          "events knows before, after, never, late=MS, merged, apart and timeout=SECONDS");
    }
  }
  return json{{"subscriptions", simulation_.services().events().Count()}};
}

json Commands::Stats(const Words& words) {
  Statistics& statistics = simulation_.statistics();
  json answer{{"searches", statistics.searches},
              {"answers", statistics.answers},
              {"announcements", statistics.announcements},
              {"connections", statistics.connections},
              {"requests", statistics.requests},
              {"descriptions", statistics.descriptions},
              {"service_descriptions", statistics.service_descriptions},
              {"actions", statistics.actions},
              {"subscriptions", statistics.subscriptions},
              {"renewals", statistics.renewals},
              {"events", statistics.events}};
  if (words.size() > 1 && words[1] == "reset") statistics = Statistics();
  return answer;
}

json Commands::Quit(const Words&) {
  quit_();
  return json::object();
}

}  // namespace vexsim
