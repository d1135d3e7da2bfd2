// Hostile documents where they hurt: as descriptions, in actions' answers and in events, with the
// whole library reading them.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include <vexupnpcp/generic_cp.h>

#include "tests/support/fake_device.h"
#include "tests/support/hostile_rig.h"
#include "tests/support/hostile_xml.h"
#include "tests/support/scripted_device.h"
#include "tests/support/wait_until.h"

namespace {

using vex_test::DescriptionServer;
using vex_test::FakeDevice;
using vex_test::HostileContents;
using vex_test::HostileXml;
using vex_test::HostLog;
using vex_test::HugeContents;
using vex_test::NothingInFlight;
using vex_test::PeerAnswer;
using vex_test::PeerRequest;
using vex_test::ScriptedDevice;
using vex_test::SpoiledDocuments;
using vex_test::ToldAction;
using vex_test::WaitUntil;

constexpr char kService[] = "Hostile";

PeerAnswer WithBody(const std::string& body, const std::string& status = "200 OK") {
  return vex_test::Text("HTTP/1.1 " + status + "\r\nContent-Type: text/xml\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body);
}

std::string Envelope(const std::string& content) {
  return "<?xml version=\"1.0\"?><s:Envelope "
         "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
         "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>" +
         content + "</s:Body></s:Envelope>";
}

std::string Response(const std::string& content) {
  return Envelope("<u:DoResponse xmlns:u=\"urn:schemas-upnp-org:service:Any:1\"><Result>" +
                  content + "</Result></u:DoResponse>");
}

class XmlHostile : public vex_test::HostileRig {
 protected:
  // Announces a device for each text, all at once, and waits until each has been dealt with.
  // `make` gives the description of a device.
  template <typename Make>
  void Describe(const std::vector<HostileXml>& texts, Make make) {
    DescriptionServer server(kPeer);
    for (std::size_t i = 0; i < texts.size(); ++i) {
      const std::string udn = "uuid:xml-" + std::to_string(i);
      const std::string path = "/" + std::to_string(i) + ".xml";
      server.Serve(path, make(udn, texts[i].text));
      SayAlive(udn, server.Url(path));
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
      SCOPED_TRACE(texts[i].name);
      const std::string key = "uuid:xml-" + std::to_string(i) + "+lan0";
      EXPECT_TRUE(WaitUntil([&] { return server.Count("/" + std::to_string(i) + ".xml") == 1; }));
      EXPECT_TRUE(WaitUntil([&] { return NothingInFlight(key); }, std::chrono::minutes(2)));
      SayByebye("uuid:xml-" + std::to_string(i));
    }
  }

  // Where the content of an element stands, and beside the elements that are read.
  void DescribeWithContents(const std::vector<HostileXml>& contents) {
    Describe(contents, [](const std::string& udn, const std::string& text) {
      FakeDevice device;
      device.udn = udn;
      device.friendly_name = text;
      return DescriptionOf(device);
    });
    Describe(contents, [](const std::string& udn, const std::string& text) {
      FakeDevice device;
      device.udn = udn;
      device.more = text;
      return DescriptionOf(device);
    });
  }

  void ActWithContents(const std::vector<HostileXml>& contents) {
    ScriptedDevice device("uuid:acting", {kService});
    const std::string key = rig_.Meet(device);
    for (const HostileXml& content : contents) {
      SCOPED_TRACE(content.name);
      for (const std::string& body : {Response(content.text), Envelope(content.text)}) {
        device.OnAction([&](const PeerRequest&) { return WithBody(body); });
        Act(key, kService);
      }
      device.OnAction([&](const PeerRequest&) { return ScriptedDevice::Fault(501, content.text); });
      EXPECT_NE(CP_ERR_NONE, Act(key, kService).code);
    }
  }
};

TEST_F(XmlHostile, DescriptionsWithHostileContents) { DescribeWithContents(HostileContents()); }

TEST_F(XmlHostile, DescriptionsWithHugeContents) { DescribeWithContents(HugeContents()); }

TEST_F(XmlHostile, SpoiledDescriptionsMakeNoDevice) {
  FakeDevice device;
  device.udn = "uuid:spoiled";
  device.services = vex_test::FakeServices(2, "/s");
  const std::vector<HostileXml> documents = SpoiledDocuments(DescriptionOf(device));
  Describe(documents, [](const std::string&, const std::string& text) { return text; });
  EXPECT_TRUE(HostLog::Devices().empty());
}

// CDATA is no text to whoever reads a description, so every place of this one is empty.
TEST_F(XmlHostile, CdataInEveryPlaceOfADescription) {
  const auto cdata = [](const std::string& name, const std::string& text) {
    return "<" + name + "><![CDATA[" + text + "]]></" + name + ">";
  };
  const std::string service =
      "<service>" + cdata("serviceType", "urn:schemas-upnp-org:service:Fake:1") +
      cdata("serviceId", "urn:upnp-org:serviceId:Fake") + cdata("SCPDURL", "/s.xml") +
      cdata("controlURL", "/c") + cdata("eventSubURL", "/e") + "</service>";
  const std::string device = cdata("deviceType", "urn:schemas-upnp-org:device:MediaServer:1") +
                             cdata("friendlyName", "Hall") + cdata("UDN", "uuid:cdata") +
                             cdata("manufacturer", "<&>") + "<iconList><icon>" +
                             cdata("url", "/i.png") + "</icon></iconList><serviceList>" + service +
                             "</serviceList>";
  const std::string document = "<root>" + cdata("URLBase", "") + "<specVersion>" +
                               cdata("major", "1") + cdata("minor", "0") +
                               "</specVersion><device>" + device + "</device></root>";
  Describe({{"CDATA everywhere", document}},
           [](const std::string&, const std::string& text) { return text; });
  EXPECT_TRUE(HostLog::Devices().empty());
}

TEST_F(XmlHostile, AUrlBaseThatPointsElsewhereLeadsThere) {
  DescriptionServer server(kPeer);
  DescriptionServer elsewhere("10.77.1.2");
  FakeDevice device;
  device.udn = "uuid:elsewhere";
  device.services = vex_test::FakeServices(1, "/e");
  device.root_more = "<URLBase>" + elsewhere.Url("/") + "</URLBase>";
  elsewhere.Serve(device.services[0].scpd_url, "<scpd/>");
  server.Serve("/d.xml", DescriptionOf(device));
  Meet(device.udn, server.Url("/d.xml"));
  EXPECT_EQ(1, elsewhere.Connections());
}

TEST_F(XmlHostile, ServiceDescriptionsAreNotReadAtAll) {
  DescriptionServer server(kPeer);
  FakeDevice device;
  device.udn = "uuid:services";
  std::vector<HostileXml> texts = SpoiledDocuments("<scpd/>");
  for (const HostileXml& content : HostileContents()) texts.push_back(content);
  device.services = vex_test::FakeServices(static_cast<int>(texts.size()), "/s");
  server.Serve("/d.xml", DescriptionOf(device));
  for (std::size_t i = 0; i < texts.size(); ++i) {
    server.Serve(device.services[i].scpd_url, texts[i].text);
  }
  SayAlive(device.udn, server.Url("/d.xml"));
  EXPECT_TRUE(WaitUntil([&] { return NothingInFlight(device.udn + "+lan0"); }));
}

TEST_F(XmlHostile, ActionsAnsweredWithHostileContents) { ActWithContents(HostileContents()); }

TEST_F(XmlHostile, ActionsAnsweredWithHugeContents) { ActWithContents(HugeContents()); }

// Of an answer only what stands in its envelope's body is read, so what stands before it is neither
// looked at nor in the way.
TEST_F(XmlHostile, ActionsAnsweredWithSpoiledDocumentsFailUnlessTheEnvelopeIsWhole) {
  ScriptedDevice device("uuid:acting", {kService});
  const std::string key = rig_.Meet(device);
  const std::string good = Response("1");
  const std::string envelope = good.substr(good.find("<s:Envelope"));
  for (const HostileXml& document : SpoiledDocuments(good)) {
    SCOPED_TRACE(document.name);
    device.OnAction([&](const PeerRequest&) { return WithBody(document.text); });
    const ToldAction told = Act(key, kService);
    const bool whole = document.text.find(envelope) != std::string::npos;
    if (whole && told.code == CP_ERR_NONE) {
      EXPECT_EQ("Result=1", told.output);
    } else {
      EXPECT_NE(CP_ERR_NONE, told.code);
    }
    device.OnAction(
        [&](const PeerRequest&) { return WithBody(document.text, "500 Internal Server Error"); });
    Act(key, kService);
  }
}

TEST_F(XmlHostile, EventsWithHostileBodies) {
  ScriptedDevice device("uuid:telling", {kService});
  const std::string key = rig_.Meet(device);
  ASSERT_EQ(0, SubscribeService(handle_, key.c_str(), kService));
  ASSERT_TRUE(WaitUntil([&] { return device.Notify(kService, 0, "x") == "HTTP/1.1 200 OK"; }));
  std::vector<HostileXml> contents = HostileContents();
  const std::string good = "<e:property><State>1</State></e:property>";
  for (const HostileXml& document : SpoiledDocuments(good)) contents.push_back(document);
  for (const HostileXml& content : HugeContents()) {
    // What a request has room for.
    contents.push_back({content.name, content.text.substr(0, 1000000)});
  }
  HostLog::Clear();
  std::size_t events = 0;
  for (const HostileXml& content : contents) {
    SCOPED_TRACE(content.name);
    for (const std::string& properties :
         {content.text, "<e:property><State>" + content.text + "</State></e:property>"}) {
      // A NUL makes a body count as empty.
      const bool empty = properties.find('\0') != std::string::npos;
      EXPECT_EQ(empty ? "HTTP/1.1 400 Bad Request" : "HTTP/1.1 200 OK",
                device.Notify(kService, 1, properties));
      events += empty ? 0 : 1;
    }
  }
  // Each is told, be it as one that cannot be read.
  EXPECT_EQ(events, HostLog::Events().size());
  EXPECT_EQ("HTTP/1.1 200 OK", device.Notify(kService, 2, good));
  EXPECT_EQ("State=1", HostLog::Events().back().variables);
  EXPECT_EQ(CP_ERR_NONE, HostLog::Events().back().code);
}

}  // namespace
