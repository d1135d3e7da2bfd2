#include <cstdio>
#include <filesystem>
#include <memory>

#include "commands.h"
#include "exit_status.h"
#include "file_server.h"
#include "host_network.h"
#include "output.h"
#include "xml_text.h"

namespace vexcp {

namespace {

constexpr char kTransport[] = "AVTransport";

struct PushOptions : CommonOptions {
  std::string udn;
  std::string file;
};

std::string UpnpClass(const std::string& type) {
  if (type.compare(0, 6, "audio/") == 0) return "object.item.audioItem.musicTrack";
  if (type.compare(0, 6, "image/") == 0) return "object.item.imageItem.photo";
  return "object.item.videoItem";
}

// What the renderer shows of the file (ContentDirectory, DIDL-Lite).
std::string Metadata(const std::string& file, const std::string& address) {
  const std::string type = MimeType(file);
  std::error_code error;
  const auto size = std::filesystem::file_size(file, error);
  return "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
         "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
         "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">"
         "<item id=\"0\" parentID=\"-1\" restricted=\"1\"><dc:title>" +
         EscapeText(std::filesystem::path(file).stem().string()) + "</dc:title><upnp:class>" +
         UpnpClass(type) + "</upnp:class><res protocolInfo=\"http-get:*:" + type + ":*\" size=\"" +
         std::to_string(error ? 0 : size) + "\">" + EscapeText(address) +
         "</res></item></DIDL-Lite>";
}

void Require(const ActionResult& result, const DeviceRecord& device, const std::string& action,
             const std::string& service_type) {
  if (result.succeeded()) return;
  throw Failure(kRefused, Printable(device.name + " did not carry out " + action + ": " +
                                    ExplainFailure(result, service_type)));
}

int Push(const PushOptions& options) {
  ControlPoint control_point(options.Start());
  const DeviceRecord device = control_point.WaitFor(options.udn, options.wait());
  const ServiceRecord& transport = RequireService(device, kTransport);
  FileServer server(options.file, [](const std::string& line) {
    std::printf("%s\n", Printable(line).c_str());
    std::fflush(stdout);
  });
  const std::vector<std::string> addresses = server.Start(device.local_ip, FreeTcpPort());
  const auto call = [&](const std::string& action, std::vector<NamedValue> arguments) {
    arguments.insert(arguments.begin(), {"InstanceID", "0"});
    return control_point.Call(device, transport.type, action, arguments);
  };
  Require(call("SetAVTransportURI",
               {{"CurrentURI", addresses.front()},
                {"CurrentURIMetaData", Metadata(options.file, addresses.front())}}),
          device, "SetAVTransportURI", transport.type);
  Require(call("Play", {{"Speed", "1"}}), device, "Play", transport.type);
  std::printf("%s plays %s; Ctrl-C ends it\n", Printable(device.name).c_str(),
              addresses.front().c_str());
  std::fflush(stdout);
  while (!control_point.events().interrupted()) control_point.events().Next(std::nullopt);
  return kDone;
}

}  // namespace

void AddPushCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<PushOptions>();
  CLI::App* command =
      app.add_subcommand("push", "let a renderer play a file, which is served until Ctrl-C");
  command->add_option("udn", options->udn, "the renderer, as for \"info\"")->required();
  command->add_option("file", options->file, "the file")->required()->check(CLI::ExistingFile);
  AddCommonOptions(*command, *options, "seconds to wait for the renderer");
  command->callback([options, &run] { run = [options] { return Push(*options); }; });
}

}  // namespace vexcp
