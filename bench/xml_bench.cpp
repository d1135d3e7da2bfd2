#include <benchmark/benchmark.h>
#include <expat.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <pugixml.hpp>

#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/xml_utils.h>
#include <vexupnpcp/xmlparser.h>

#include "src/device.h"
#include "src/device_description_parser.h"

// Device descriptions parsed by this library and by others, side by side in one process.

namespace vex_upnp {
namespace {

std::string Service(int number) {
  const std::string name = "Service" + std::to_string(number);
  return "      <service>\n        <serviceType>urn:schemas-upnp-org:service:" + name +
         ":1</serviceType>\n        <serviceId>urn:upnp-org:serviceId:" + name +
         "</serviceId>\n        <SCPDURL>/scpd/" + name +
         ".xml</SCPDURL>\n        <controlURL>/control/" + name +
         "</controlURL>\n        <eventSubURL>/event/" + name +
         "</eventSubURL>\n      </service>\n";
}

std::string Icon(int size) {
  const std::string edge = std::to_string(size);
  return "      <icon>\n        <mimetype>image/png</mimetype>\n        <width>" + edge +
         "</width>\n        <height>" + edge +
         "</height>\n        <depth>24</depth>\n        <url>/icons/" + edge +
         ".png</url>\n      </icon>\n";
}

// A description as devices send it, with as many services as make it at least this long.
std::string Description(std::size_t bytes) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<root xmlns=\"urn:schemas-upnp-org:device-1-0\" "
      "xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">\n"
      "  <specVersion>\n    <major>1</major>\n    <minor>0</minor>\n  </specVersion>\n"
      "  <device>\n    <deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>\n"
      "    <friendlyName>Living Room: Films &amp; Music</friendlyName>\n"
      "    <manufacturer>Example Electronics</manufacturer>\n"
      "    <manufacturerURL>http://www.example.com/</manufacturerURL>\n"
      "    <modelDescription>Media server with very many services</modelDescription>\n"
      "    <modelName>Example Media Server</modelName>\n    <modelNumber>1.3</modelNumber>\n"
      "    <modelURL>http://www.example.com/media</modelURL>\n"
      "    <serialNumber>0123456789</serialNumber>\n"
      "    <UDN>uuid:4d696e69-444c-164e-9d41-001122334455</UDN>\n"
      "    <dlna:X_DLNADOC>DMS-1.50</dlna:X_DLNADOC>\n"
      "    <presentationURL>/index.html</presentationURL>\n    <iconList>\n";
  text += Icon(48) + Icon(120) + "    </iconList>\n    <serviceList>\n";
  const std::string end = "    </serviceList>\n  </device>\n</root>\n";
  for (int i = 1; text.size() + end.size() < bytes; ++i) text += Service(i);
  return text + end;
}

void Finish(benchmark::State& state, const std::string& text) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(text.size()));
}

void Tree(benchmark::State& state) {
  const std::string text = Description(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    utils::XmlParser parser;
    if (utils::XmlParserGetDomMA(text, parser) != 1) state.SkipWithError("not parsed");
    utils::XmlParserDestroy(parser);
  }
  Finish(state, text);
}

void TreeByPugixml(benchmark::State& state) {
  const std::string text = Description(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    pugi::xml_document document;
    if (!document.load_buffer(text.data(), text.size())) state.SkipWithError("not parsed");
    benchmark::DoNotOptimize(document.first_child());
  }
  Finish(state, text);
}

void TreeByLibxml2(benchmark::State& state) {
  const std::string text = Description(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    xmlDoc* const document =
        xmlReadMemory(text.data(), static_cast<int>(text.size()), "d.xml", nullptr, 0);
    if (document == nullptr) state.SkipWithError("not parsed");
    xmlFreeDoc(document);
  }
  Finish(state, text);
}

void EventsByExpat(benchmark::State& state) {
  const std::string text = Description(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    const XML_Parser parser = XML_ParserCreate(nullptr);
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK) {
      state.SkipWithError("not parsed");
    }
    XML_ParserFree(parser);
  }
  Finish(state, text);
}

void IntoDevice(benchmark::State& state) {
  const std::string text = Description(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    boost::shared_ptr<cp_discovery::Device> device(new cp_discovery::Device);
    if (cp_discovery::DeviceDescriptionParser::MakeDeviceInfo(text, device) != 0) {
      state.SkipWithError("not parsed");
    }
  }
  Finish(state, text);
}

void Unescape(benchmark::State& state) {
  std::string text;
  while (text.size() < static_cast<std::size_t>(state.range(0))) {
    text += "&lt;dc:title&gt;tone &amp;amp; t&#xE9;&lt;/dc:title&gt;";
  }
  for (auto _ : state) {
    std::string plain;
    if (utils::XmlUnescapeValue(text, plain) != 0) state.SkipWithError("not unescaped");
    benchmark::DoNotOptimize(plain);
  }
  Finish(state, text);
}

constexpr int kSmall = 4 * 1024;
constexpr int kLarge = 60 * 1024;

BENCHMARK(Tree)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(TreeByPugixml)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(TreeByLibxml2)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(EventsByExpat)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(IntoDevice)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(Unescape)->Arg(kSmall)->Arg(kLarge);

}  // namespace
}  // namespace vex_upnp

BENCHMARK_MAIN();
