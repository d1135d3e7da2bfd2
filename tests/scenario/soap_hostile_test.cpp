// Answers of actions that are odd as SOAP, with the whole library reading them.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vexupnpcp/generic_cp.h>

#include "tests/support/hostile_rig.h"
#include "tests/support/hostile_xml.h"
#include "tests/support/scripted_device.h"
#include "tests/support/timing_scaled.h"

namespace {

using vex_test::HostLog;
using vex_test::PeerRequest;
using vex_test::RepeatedText;
using vex_test::ScriptedDevice;
using vex_test::ToldAction;

constexpr char kService[] = "Hostile";
constexpr char kOpen[] =
    "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
constexpr char kClose[] = "</s:Envelope>";
constexpr char kGood[] =
    "<u:DoResponse xmlns:u=\"urn:schemas-upnp-org:service:Any:1\"><Result>1</Result>"
    "</u:DoResponse>";

std::string Envelope(const std::string& body) {
  return std::string(kOpen) + "<s:Body>" + body + "</s:Body>" + kClose;
}

std::string Fault(const std::string& code, const std::string& description) {
  return Envelope(
      "<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
      "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>" +
      code + "</errorCode><errorDescription>" + description +
      "</errorDescription></UPnPError></detail></s:Fault>");
}

std::string WithPrefix(const std::string& prefix) {
  return "<" + prefix + "Envelope><" + prefix + "Body>" + kGood + "</" + prefix + "Body></" +
         prefix + "Envelope>";
}

struct OddAnswer {
  std::string name;
  bool counts;
  std::string body;
};

// With status 200, where the elements of a fault pass for arguments.
std::vector<OddAnswer> OddAnswers() {
  std::string many;
  for (int i = 0; i < 10000; ++i)
    many += "<A" + std::to_string(i) + ">1</A" + std::to_string(i) + ">";
  return {
      {"empty", false, ""},
      {"another prefix", false, WithPrefix("other:")},
      {"the default namespace", false, WithPrefix("")},
      {"the usual other prefix", true, WithPrefix("SOAP-ENV:")},
      {"no envelope", false, kGood},
      {"no body", false, std::string(kOpen) + kClose},
      {"an empty body", false, Envelope("")},
      {"a body without its end", false, std::string(kOpen) + "<s:Body>" + kGood + kClose},
      {"only the end of a body", false, "</s:Body></s:Envelope>"},
      {"end before begin", false, "</s:Body>" + std::string(kOpen) + "<s:Body>" + kGood},
      {"two bodies", true,
       std::string(kOpen) + "<s:Body>" + kGood + "</s:Body><s:Body><x/></s:Body>" + kClose},
      {"a body in a body", false, Envelope("<s:Body>" + std::string(kGood) + "</s:Body>")},
      {"200,000 bodies", false, RepeatedText("<s:Body>", 200000)},
      {"200,000 ends of bodies", false, RepeatedText("</s:Body>", 200000)},
      {"text for a response", false, Envelope("text")},
      {"text in front of the response", true, Envelope("text" + std::string(kGood))},
      {"no arguments", false, Envelope("<u:DoResponse/>")},
      {"10,000 arguments", true, Envelope("<u:DoResponse>" + many + "</u:DoResponse>")},
      {"an argument of 7 MiB", true,
       Envelope("<u:DoResponse><A>" + std::string(7 * 1024 * 1024, 'a') + "</A></u:DoResponse>")},
      {"another action's response", true, Envelope("<u:OtherResponse><A>1</A></u:OtherResponse>")},
      {"a fault", true, Fault("501", "Action Failed")},
      {"a fault with code abc", true, Fault("abc", "x")},
      {"a fault with code -1", true, Fault("-1", "x")},
      {"a fault with code 0", true, Fault("0", "x")},
      {"a fault with code 99999999999", true, Fault("99999999999", "x")},
      {"a fault without code", true, Fault("", "x")},
      {"a fault without description", true, Fault("501", "")},
      {"a fault with a description of 7 MiB", true,
       Fault("501", std::string(7 * 1024 * 1024, 'd'))},
      {"a fault in a fault", false, Fault("501", Fault("502", "x"))},
  };
}

class SoapHostile : public vex_test::HostileRig {
 protected:
  void SetUp() override {
    HostileRig::SetUp();
    key_ = rig_.Meet(device_);
  }

  ToldAction AnswerWith(const std::string& body, const std::string& status) {
    // Copies: the device's thread answers from them while the caller's may be gone.
    device_.OnAction([status, body](const PeerRequest&) {
      return vex_test::Text("HTTP/1.1 " + status + "\r\nContent-Length: " +
                            std::to_string(body.size()) + "\r\n\r\n" + body);
    });
    return Act(key_, kService);
  }

  ScriptedDevice device_{"uuid:acting", {kService}};
  std::string key_;
};

TEST_F(SoapHostile, OddAnswersAreToldOnceAndNoMore) {
  for (const OddAnswer& answer : OddAnswers()) {
    SCOPED_TRACE(answer.name);
    HostLog::Clear();
    const ToldAction told = AnswerWith(answer.body, "200 OK");
    EXPECT_EQ(answer.counts, told.code == CP_ERR_NONE) << told.code << ' ' << told.output;
    // With the status of a fault nothing counts but a fault that says there was none.
    const bool counts = answer.name == "a fault with code 0";
    EXPECT_EQ(counts, AnswerWith(answer.body, "500 Internal Server Error").code == CP_ERR_NONE);
    EXPECT_EQ(2U, HostLog::Actions().size());
  }
}

TEST_F(SoapHostile, AFaultsDescriptionOfTenMegabytesIsNoAnswerAtAll) {
  const std::string body = Fault("501", std::string(10 * 1024 * 1024, 'd'));
  const vex_test::FasterTime faster(30);
  EXPECT_NE(CP_ERR_NONE, AnswerWith(body, "500 Internal Server Error").code);
  EXPECT_NE(CP_ERR_NONE, AnswerWith(body, "200 OK").code);
}

TEST_F(SoapHostile, AFaultKeepsItsCodeAndWordsUnderAnyOfItsStatuses) {
  const ToldAction told = AnswerWith(Fault("718", "Invalid InstanceID"), "500 Fault");
  EXPECT_EQ("'Invalid InstanceID'", told.description);
  EXPECT_NE(CP_ERR_NONE, told.code);
}

}  // namespace
