#include <memory>
#include <nlohmann/json.hpp>

#include "behaviour.h"
#include "search_criteria.h"
#include "text.h"
#include "upnp_errors.h"
#include "xml.h"

namespace vexsim {

namespace {

using nlohmann::json;

constexpr char kContentFile[] = "content.json";

struct MediaObject {
  std::string id;
  std::string parent;
  std::string title;
  std::string upnp_class;
  std::string artist;
  std::string duration;
  // Path below the device's prefix; empty for a container.
  std::string file;
  std::string protocol;
  std::size_t size = 0;
};

// What a media server holds: content.json of its folder, in the order of that file.
class Content {
 public:
  explicit Content(const DeviceFolder& folder) {
    const auto document = FindIn(folder);
    if (document == nullptr) return;
    for (const json& entry : json::parse(*document)) Add(entry, folder);
  }

  const MediaObject* Find(const std::string& id) const {
    for (const MediaObject& object : objects_)
      if (object.id == id) return &object;
    return nullptr;
  }

  std::vector<const MediaObject*> Children(const std::string& id) const {
    std::vector<const MediaObject*> children;
    for (const MediaObject& object : objects_)
      if (object.parent == id) children.push_back(&object);
    return children;
  }

  // Everything below a container for which the filter holds, in the order of the file.
  std::vector<const MediaObject*> Matching(const std::string& container,
                                           const SearchFilter& filter) const {
    std::vector<const MediaObject*> matching;
    for (const MediaObject& object : objects_)
      if (IsBelow(object, container) &&
          filter([&object](const std::string& name) { return Property(object, name); }))
        matching.push_back(&object);
    return matching;
  }

 private:
  bool IsBelow(const MediaObject& object, const std::string& container) const {
    const MediaObject* at = &object;
    for (std::size_t steps = 0; at != nullptr && steps < objects_.size(); ++steps) {
      if (at->parent == container) return true;
      at = Find(at->parent);
    }
    return false;
  }

  static std::optional<std::string> Property(const MediaObject& object, const std::string& name) {
    const std::pair<const char*, const std::string&> known[] = {{"@id", object.id},
                                                                {"@parentID", object.parent},
                                                                {"dc:title", object.title},
                                                                {"upnp:class", object.upnp_class},
                                                                {"upnp:artist", object.artist}};
    for (const auto& [property, value] : known)
      if (name == property && !value.empty()) return value;
    return std::nullopt;
  }

  static const std::string* FindIn(const DeviceFolder& folder) {
    for (const auto& [path, document] : folder.documents)
      if (path.size() >= sizeof(kContentFile) - 1 &&
          path.compare(path.size() - (sizeof(kContentFile) - 1), std::string::npos, kContentFile) ==
              0)
        return &document.body;
    return nullptr;
  }

  // An entry with "count" stands for so many objects of its kind.
  void Add(const json& entry, const DeviceFolder& folder) {
    MediaObject object;
    object.id = entry.at("id");
    object.parent = entry.at("parent");
    object.title = entry.at("title");
    object.upnp_class = entry.at("class");
    object.artist = entry.value("artist", "");
    object.duration = entry.value("duration", "");
    object.file = entry.value("file", "");
    object.protocol = entry.value("protocol", "");
    const auto document = folder.documents.find(object.file);
    if (document != folder.documents.end()) object.size = document->second.body.size();
    const unsigned count = entry.value("count", 0U);
    if (count == 0) objects_.push_back(object);
    for (unsigned n = 1; n <= count; ++n) {
      objects_.push_back(object);
      objects_.back().id += "-" + std::to_string(n);
      objects_.back().title += " " + std::to_string(n);
    }
  }

  std::vector<MediaObject> objects_;
};

const Content& ContentOf(const Device& device) {
  static std::map<const DeviceFolder*, std::unique_ptr<Content>> contents;
  std::unique_ptr<Content>& content = contents[&device.folder()];
  if (!content) content = std::make_unique<Content>(device.folder());
  return *content;
}

std::string Tag(const std::string& name, const std::string& value) {
  return value.empty() ? std::string() : "<" + name + ">" + EscapeXml(value) + "</" + name + ">";
}

std::string Didl(const MediaObject& object, const Content& content, const std::string& base) {
  const bool container = object.file.empty();
  const std::string element = container ? "container" : "item";
  std::string text = "<" + element + " id=\"" + EscapeXml(object.id) + "\" parentID=\"" +
                     EscapeXml(object.parent) + "\" restricted=\"1\"";
  if (container)
    text += " childCount=\"" + std::to_string(content.Children(object.id).size()) + "\"";
  text += ">" + Tag("dc:title", object.title) + Tag("upnp:class", object.upnp_class) +
          Tag("upnp:artist", object.artist);
  if (!container) {
    text += "<res protocolInfo=\"" + EscapeXml(object.protocol) + "\" size=\"" +
            std::to_string(object.size) + "\"";
    if (!object.duration.empty()) text += " duration=\"" + EscapeXml(object.duration) + "\"";
    text += ">" + EscapeXml(base + "/" + object.file) + "</res>";
  }
  return text + "</" + element + ">";
}

// Puts the wanted page of all matches into the results.
int Answer(ActionCall& call, const Content& content,
           const std::vector<const MediaObject*>& matches) {
  const auto first = ToNumber<std::size_t>(call.request.Argument("StartingIndex")).value_or(0);
  const auto asked = ToNumber<std::size_t>(call.request.Argument("RequestedCount")).value_or(0);
  std::string didl =
      "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
      "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
      "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">";
  std::size_t returned = 0;
  for (std::size_t i = first; i < matches.size() && (asked == 0 || returned < asked); ++i) {
    didl += Didl(*matches[i], content, call.base);
    ++returned;
  }
  call.results["Result"] = didl + "</DIDL-Lite>";
  call.results["NumberReturned"] = std::to_string(returned);
  call.results["TotalMatches"] = std::to_string(matches.size());
  call.results["UpdateID"] = call.state.Get("SystemUpdateID");
  return 0;
}

int Browse(ActionCall& call) {
  const Content& content = ContentOf(call.device);
  const MediaObject* object = content.Find(call.request.Argument("ObjectID"));
  if (object == nullptr) return kNoSuchObject;
  std::vector<const MediaObject*> matches{object};
  if (call.request.Argument("BrowseFlag") == "BrowseDirectChildren")
    matches = content.Children(object->id);
  return Answer(call, content, matches);
}

int Search(ActionCall& call) {
  const Content& content = ContentOf(call.device);
  const MediaObject* container = content.Find(call.request.Argument("ContainerID"));
  if (container == nullptr || !container->file.empty()) return kNoSuchContainer;
  const auto filter = ParseSearchCriteria(call.request.Argument("SearchCriteria"));
  if (!filter) return kInvalidSearchCriteria;
  return Answer(call, content, content.Matching(container->id, *filter));
}

}  // namespace

void AddMediaServerBehaviours(Behaviours& behaviours) {
  behaviours["ContentDirectory.Browse"] = Browse;
  behaviours["ContentDirectory.Search"] = Search;
}

}  // namespace vexsim
