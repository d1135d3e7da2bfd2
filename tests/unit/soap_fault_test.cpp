#include "src/soap_fault.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/support/any_cut.h"

namespace vex_upnp {
namespace {

std::string BehindHeader(const std::string& answer) {
  return answer.substr(answer.find("\r\n\r\n") + 4);
}

TEST(SoapFault, ProperBody) {
  const std::string body = SoapFaultBody(402, "Invalid Args", FaultLayout::kProper);
  EXPECT_EQ(
      "<?xml version=\"1.0\"?>"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
      "<s:Body><s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
      "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">"
      "<errorCode>402</errorCode><errorDescription>Invalid Args</errorDescription>"
      "</UPnPError></detail></s:Fault></s:Body></s:Envelope>",
      body);
  EXPECT_EQ(417U, body.size());
}

TEST(SoapFault, KeptBadRequestOfTheCallbackHandlerHasBlanksBeforeItsLineEnds) {
  const std::string answer = BadRequestAnswer(BadRequestLayout::kTrailingBlanks);
  EXPECT_EQ(
      "HTTP/1.0 400 Bad Request \r\n"
      "CONTENT-TYPE: text/xml; charset=\"utf-8\" \r\n"
      "SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0 \r\n"
      "CONTENT-LENGTH: 417 \r\n"
      "\r\n"
      "<?xml version=\"1.0\"?>"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
      "<s:Body><s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
      "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">"
      "<errorCode>402</errorCode><errorDescription>Invalid Args</errorDescription>"
      "</UPnPError></detail></s:Fault></s:Body></s:Envelope>",
      answer);
  EXPECT_EQ(417U, BehindHeader(answer).size());
}

TEST(SoapFault, PlainBadRequest) {
  const std::string answer = BadRequestAnswer(BadRequestLayout::kPlain);
  EXPECT_EQ(
      "HTTP/1.0 400 Bad Request\r\n"
      "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
      "SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0\r\n"
      "CONTENT-LENGTH: 417\r\n"
      "\r\n"
      "<?xml version=\"1.0\"?>"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
      "<s:Body><s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
      "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">"
      "<errorCode>402</errorCode><errorDescription>Invalid Args</errorDescription>"
      "</UPnPError></detail></s:Fault></s:Body></s:Envelope>",
      answer);
  EXPECT_EQ(417U, BehindHeader(answer).size());
}

TEST(SoapFault, KeptBadRequestForALongRequestIsIndentedBeyondItsLength) {
  const std::string answer = BadRequestAnswer(BadRequestLayout::kIndented);
  EXPECT_EQ(
      "HTTP/1.0 400 Bad Request\r\n"
      "            CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
      "            SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0\r\n"
      "            CONTENT-LENGTH: 417\r\n"
      "\r\n"
      "            <?xml version=\"1.0\"?>"
      "            <s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
      "            <s:Body><s:Fault><faultcode>s:Client</faultcode>"
      "<faultstring>UPnPError</faultstring><detail>"
      "            <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">"
      "<errorCode>402</errorCode>            <errorDescription>Invalid Args</errorDescription>"
      "</UPnPError></detail></s:Fault></s:Body></s:Envelope>",
      answer);
  EXPECT_EQ(477U, BehindHeader(answer).size());
}

TEST(SoapFault, BrokenConnectionAnswer) {
  const std::string answer = BrokenConnectionAnswer();
  EXPECT_EQ(
      "HTTP/1.0 500 Internal Server Error\r\n"
      "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
      "SERVER: UPnP/1.1 Tolmark Linkweft Server/1.0\r\n"
      "CONTENT-LENGTH: 418\r\n\r\n"
      "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\""
      "http://schemas.xmlsoap.org/soap/envelope/"
      "\" s:encodingStyle=\""
      "http://schemas.xmlsoap.org/soap/encoding/"
      "\"><s:Body><s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
      "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>501</errorCode>"
      "<errorDescription>Action Failed</errorDescription></UPnPError></detail></s:Fault></s:Body>"
      "</s:Envelope>",
      answer);
  EXPECT_EQ(564U, answer.size());
  EXPECT_EQ(418U, BehindHeader(answer).size());
}

TEST(SoapFault, BrokenConnectionAnswerIsACompleteMessage) {
  const std::string answer = BrokenConnectionAnswer();
  const vex_test::ParsedMessage message = vex_test::ParseAnyCut(answer);
  EXPECT_EQ(1, message.state);
  EXPECT_EQ(500U, message.code);
  EXPECT_EQ(BehindHeader(answer), message.body);
}

TEST(SoapFault, KeptActionTimeoutHasNoBlankInItsStartTag) {
  const std::string body = ActionTimeoutBody();
  EXPECT_EQ(
      "<?xml version=\"1.0\"?><s:Envelopexmlns:s=\""
      "http://schemas.xmlsoap.org/soap/envelope/"
      "\"s:encodingStyle=\""
      "http://schemas.xmlsoap.org/soap/encoding/"
      "\"><s:Body><s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>"
      "<detail><UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>801</errorCode>"
      "<errorDescription>Action Timeout</errorDescription></UPnPError></detail></s:Fault></s:Body>"
      "</s:Envelope>",
      body);
  EXPECT_EQ(417U, body.size());
}

}  // namespace
}  // namespace vex_upnp
