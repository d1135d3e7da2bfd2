#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <set>

#include "commands.h"
#include "didl.h"
#include "exit_status.h"
#include "output.h"

namespace vexcp {

namespace {

using nlohmann::json;

constexpr char kRoot[] = "0";
constexpr char kContentDirectory[] = "service:ContentDirectory:";
constexpr unsigned kDeepest = 30;

struct BrowseOptions : CommonOptions {
  std::string udn;
  std::string id = kRoot;
  std::string search;
  unsigned depth = 1;
  unsigned page = 200;
  unsigned limit = 10000;
};

std::uint32_t Number(const std::string& text) {
  std::uint32_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

json ObjectJson(const MediaObject& object) {
  json value{{"id", object.id},
             {"parent", object.parent},
             {"title", object.title},
             {"class", object.upnp_class},
             {"container", object.container}};
  if (!object.artist.empty()) value["artist"] = object.artist;
  if (!object.child_count.empty()) value["child_count"] = object.child_count;
  for (const MediaResource& resource : object.resources)
    value["resources"].push_back(json{{"url", resource.url},
                                      {"protocol_info", resource.protocol_info},
                                      {"size", resource.size},
                                      {"duration", resource.duration}});
  return value;
}

// "+ Music (12)  [id]" for a container, "- Song, Artist  0:03:12  [id]" for an item.
std::string ObjectLine(const MediaObject& object, unsigned indent) {
  std::string line = std::string(std::size_t{2} * indent, ' ') + (object.container ? "+ " : "- ");
  line += object.title;
  if (!object.artist.empty()) line += ", " + object.artist;
  if (!object.child_count.empty()) line += " (" + object.child_count + ")";
  if (!object.resources.empty() && !object.resources[0].duration.empty())
    line += "  " + object.resources[0].duration;
  return Printable(line + "  [" + object.id + "]");
}

// Reads a media server and prints it while it comes, or gathers it for JSON.
class Browser {
 public:
  Browser(const BrowseOptions& options, ControlPoint& control_point, const DeviceRecord& device)
      : options_(options),
        control_point_(control_point),
        device_(device),
        service_(RequireService(device, kContentDirectory).type) {}

  void Run() {
    json list = json::array();
    if (!options_.search.empty()) {
      Search(list);
    } else if (options_.id == kRoot) {
      Children(kRoot, 0, 0, list);
    } else {
      // An item has no children, and is shown by itself.
      Page page = Ask("BrowseMetadata", options_.id, 0);
      if (page.objects.empty()) throw Failure(kRefused, "the server describes no such object");
      Show(page.objects[0], 0, 0, list);
      if (!options_.json) ShowResources(page.objects[0]);
    }
    if (options_.json) std::printf("%s\n", Dump(list).c_str());
    if (cut_)
      std::fprintf(stderr,
                   "vexcp: only the first %u objects are shown; a larger --limit shows more\n",
                   options_.limit);
  }

 private:
  struct Page {
    std::vector<MediaObject> objects;
    std::uint32_t total = 0;
  };

  Page Ask(const std::string& flag, const std::string& id, std::uint32_t first) {
    return Read("Browse",
                {{"ObjectID", id},
                 {"BrowseFlag", flag},
                 {"Filter", "*"},
                 {"StartingIndex", std::to_string(first)},
                 {"RequestedCount",
                  flag == "BrowseMetadata" ? std::string(kRoot) : std::to_string(options_.page)},
                 {"SortCriteria", ""}});
  }

  Page AskSearch(std::uint32_t first) {
    return Read("Search", {{"ContainerID", options_.id},
                           {"SearchCriteria", options_.search},
                           {"Filter", "*"},
                           {"StartingIndex", std::to_string(first)},
                           {"RequestedCount", std::to_string(options_.page)},
                           {"SortCriteria", ""}});
  }

  Page Read(const std::string& action, const std::vector<NamedValue>& arguments) {
    const ActionResult result = control_point_.Call(device_, service_, action, arguments);
    if (!result.succeeded())
      throw Failure(kRefused, Printable(device_.name + " did not carry out " + action + ": " +
                                        ExplainFailure(result, service_)));
    std::optional<std::vector<MediaObject>> objects = ReadDidl(result.Output("Result"));
    if (!objects)
      throw Failure(kRefused, Printable(device_.name) + " gave a list that cannot be read");
    return {std::move(*objects), Number(result.Output("TotalMatches"))};
  }

  // Goes on page by page until all matches are there; a total of 0 stands for an unknown one.
  template <typename Next, typename Take>
  void EachPage(const Next& next, const Take& take) {
    for (std::uint32_t first = 0; !cut_;) {
      Page page = next(first);
      for (const MediaObject& object : page.objects) {
        if (cut_ = shown_ >= options_.limit; cut_) return;
        take(object);
      }
      first += static_cast<std::uint32_t>(page.objects.size());
      if (page.objects.empty() || (page.total != 0 && first >= page.total)) return;
    }
  }

  void Search(json& list) {
    EachPage([this](std::uint32_t first) { return AskSearch(first); },
             [&](const MediaObject& object) { Print(object, 0, list); });
  }

  // `opened` counts the containers above, each of which is a level.
  void Children(const std::string& id, unsigned indent, unsigned opened, json& list) {
    if (opened >= options_.depth || !open_.insert(id).second) return;
    EachPage([&](std::uint32_t first) { return Ask("BrowseDirectChildren", id, first); },
             [&](const MediaObject& object) { Show(object, indent, opened + 1, list); });
    open_.erase(id);
  }

  // An object, and below a container what it holds.
  void Show(const MediaObject& object, unsigned indent, unsigned opened, json& list) {
    json& entry = Print(object, indent, list);
    if (!object.container) return;
    json children = json::array();
    Children(object.id, indent + 1, opened, children);
    if (!children.empty()) entry["children"] = std::move(children);
  }

  json& Print(const MediaObject& object, unsigned indent, json& list) {
    ++shown_;
    if (!options_.json) {
      std::printf("%s\n", ObjectLine(object, indent).c_str());
      return list;
    }
    list.push_back(ObjectJson(object));
    return list.back();
  }

  static void ShowResources(const MediaObject& object) {
    for (const MediaResource& resource : object.resources)
      std::printf("    %s  %s bytes  %s\n", Printable(resource.protocol_info).c_str(),
                  resource.size.empty() ? "?" : Printable(resource.size).c_str(),
                  Printable(resource.url).c_str());
  }

  const BrowseOptions& options_;
  ControlPoint& control_point_;
  const DeviceRecord& device_;
  const std::string service_;
  // The containers on the way down, so that one that holds itself ends the walk.
  std::set<std::string> open_;
  unsigned shown_ = 0;
  bool cut_ = false;
};

int Browse(const BrowseOptions& options) {
  ControlPoint control_point(options.Start());
  const DeviceRecord device = control_point.WaitFor(options.udn, options.wait());
  Browser(options, control_point, device).Run();
  return kDone;
}

}  // namespace

void AddBrowseCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<BrowseOptions>();
  CLI::App* command = app.add_subcommand("browse", "show what a media server holds");
  command->add_option("udn", options->udn, "the media server, as for \"info\"")->required();
  command->add_option("id", options->id, "where to begin: a container or an item")
      ->capture_default_str();
  command->add_option("--depth", options->depth, "levels of containers to open")
      ->check(CLI::Range(1U, kDeepest))
      ->capture_default_str();
  command->add_option("--search", options->search, "search instead, as dc:title contains \"tone\"");
  command->add_option("--page", options->page, "objects to ask for at a time")
      ->check(CLI::Range(1U, 100000U))
      ->capture_default_str();
  command->add_option("--limit", options->limit, "objects to show at most")
      ->check(CLI::Range(1U, 10000000U))
      ->capture_default_str();
  AddCommonOptions(*command, *options, "seconds to wait for the device");
  command->callback([options, &run] { run = [options] { return Browse(*options); }; });
}

}  // namespace vexcp
