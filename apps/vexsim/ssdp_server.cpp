#include "ssdp_server.h"

#include <cstring>

namespace vexsim {

namespace {

constexpr std::string_view kUuid = "uuid:";
constexpr std::string_view kEverything = "ssdp:all";

std::string Authority(const Interface& interface, const Device& device) {
  return interface.text + ":" + std::to_string(device.port);
}

}  // namespace

SsdpServer::SsdpServer(EventLoop& loop, Fleet& fleet, Statistics& statistics,
                       const SsdpOptions& options)
    : loop_(loop),
      fleet_(fleet),
      statistics_(statistics),
      options_(options),
      interfaces_(FindInterfaces(options.interface_names)),
      socket_(loop, interfaces_,
              [this](std::string_view text, const sockaddr_in& from, int index) {
                OnDatagram(text, from, index);
              }),
      random_(std::random_device{}()) {}

void SsdpServer::RefreshInterfaces() {
  interfaces_ = FindInterfaces(options_.interface_names);
  socket_.Join(interfaces_);
}

const Interface* SsdpServer::FindInterface(int index) const {
  for (const Interface& interface : interfaces_)
    if (interface.index == index) return &interface;
  return nullptr;
}

void SsdpServer::OnDatagram(std::string_view text, const sockaddr_in& from, int interface_index) {
  const Interface* interface = FindInterface(interface_index);
  if (interface == nullptr) return;
  const std::optional<Search> search = ParseSearch(text);
  if (!search) return;
  ++statistics_.searches;
  if (options_.timing.kind == AnswerTiming::Kind::kOff || SeenBefore(text, from)) return;
  if (std::string_view(search->target).substr(0, kUuid.size()) == kUuid) {
    AnswerUuid(*search, from, *interface);
  } else {
    Answer(*search, from, *interface);
  }
  ArmTimer();
}

bool SsdpServer::SeenBefore(std::string_view text, const sockaddr_in& from) {
  const TimePoint now = Clock::now();
  const bool seen = now - last_search_time_ < options_.merge && text == last_search_ &&
                    std::memcmp(&from, &last_searcher_, sizeof(from)) == 0;
  last_search_ = text;
  last_searcher_ = from;
  last_search_time_ = now;
  return seen;
}

void SsdpServer::Answer(const Search& search, const sockaddr_in& from, const Interface& interface) {
  const auto searched =
      search.target == kEverything ? nullptr : std::make_shared<const std::string>(search.target);
  // Devices of one folder mostly follow each other.
  const DeviceFolder* folder = nullptr;
  std::vector<std::size_t> matching;
  for (const auto& [id, device] : fleet_.devices()) {
    if (!device->alive) continue;
    if (&device->folder() != folder) {
      folder = &device->folder();
      matching = MatchingTargets(*folder, search.target);
    }
    for (const std::size_t target : matching)
      Enqueue(search, Pending{id, target, searched, from, interface.index});
  }
}

void SsdpServer::AnswerUuid(const Search& search, const sockaddr_in& from,
                            const Interface& interface) {
  for (const auto& [id, device] : fleet_.devices()) {
    if (!device->alive) continue;
    const std::vector<Target>& targets = device->folder().targets;
    for (std::size_t i = 0; i < targets.size(); ++i)
      if (targets[i].text.empty() && device->Udn(targets[i].device) == search.target)
        Enqueue(search, Pending{id, i, nullptr, from, interface.index});
  }
}

void SsdpServer::Enqueue(const Search& search, Pending pending) {
  pending_.emplace(AnswerTime(search.mx), std::move(pending));
}

TimePoint SsdpServer::AnswerTime(unsigned mx) {
  Milliseconds window{0};
  if (options_.timing.kind == AnswerTiming::Kind::kMx) window = std::chrono::seconds(mx);
  if (options_.timing.kind == AnswerTiming::Kind::kWindow) window = options_.timing.window;
  const TimePoint now = Clock::now();
  if (window.count() == 0) return now;
  const Clock::duration::rep longest = std::chrono::duration_cast<Clock::duration>(window).count();
  return now +
         Clock::duration(std::uniform_int_distribution<Clock::duration::rep>(0, longest)(random_));
}

void SsdpServer::ArmTimer() {
  if (pending_.empty()) return;
  const TimePoint first = pending_.begin()->first;
  if (timer_ != 0 && timer_time_ <= first) return;
  loop_.CancelTimer(timer_);
  timer_time_ = first;
  timer_ = loop_.At(first, [this] {
    timer_ = 0;
    SendDue();
    ArmTimer();
  });
}

void SsdpServer::SendDue() {
  const auto end = pending_.upper_bound(Clock::now());
  std::vector<Datagram> datagrams;
  for (auto entry = pending_.begin(); entry != end; ++entry) {
    const Pending& pending = entry->second;
    const Device* device = fleet_.Find(pending.device);
    const Interface* interface = FindInterface(pending.interface_index);
    if (device == nullptr || !device->alive || interface == nullptr) continue;
    const Target& target = device->folder().targets[pending.target];
    const std::string text = pending.searched ? *pending.searched : device->TargetText(target);
    datagrams.push_back(
        {SearchAnswer(text, device->Usn(target, text),
                      device->Location(Authority(*interface, *device)), options_.max_age),
         pending.to, interface->index, interface->address});
  }
  pending_.erase(pending_.begin(), end);
  statistics_.answers += socket_.Send(datagrams);
}

void SsdpServer::SendToGroup(const Device& device, bool alive) {
  std::vector<Datagram> datagrams;
  for (unsigned copy = 0; copy < options_.copies; ++copy) {
    for (const Interface& interface : interfaces_) {
      const std::string location = device.Location(Authority(interface, device));
      for (const Target& target : device.folder().targets) {
        const std::string text = device.TargetText(target);
        const std::string usn = device.Usn(target, text);
        datagrams.push_back(
            {alive ? AliveMessage(text, usn, location, options_.max_age) : ByebyeMessage(text, usn),
             SsdpGroupAddress(), interface.index, interface.address});
      }
    }
  }
  statistics_.announcements += socket_.Send(datagrams);
}

void SsdpServer::Announce(const Device& device) { SendToGroup(device, true); }

void SsdpServer::Byebye(const Device& device) { SendToGroup(device, false); }

}  // namespace vexsim
