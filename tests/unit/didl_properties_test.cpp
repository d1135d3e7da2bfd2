#include "src/didl_properties.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <list>
#include <string>

#include <vexupnpcp/cp_utils.h>

#include "tests/support/log_capture.h"

namespace vex_upnp {
namespace cp_utils {
namespace {

constexpr char kTag[] = "VEX_CORE_CP_UTILS";

constexpr DIDL_Property kExpected[] = {
    {"xmlns", "none", 256},
    {"xmlns:dc", "none", 256},
    {"xmlns:upnp", "none", 256},
    {"xmlns:dlna", "none", 256},
    {"dc:creator", "string", 1024},
    {"creator", "dc:title", 256},
    {"dc:date", "dateTime.tz", 29},
    {"dc:title", "dc:title", 200},
    {"res", "string", 1024},
    {"colorDepth", "unsigned integer", 10},
    {"bitrate", "unsigned integer", 10},
    {"duration", "string", 1024},
    {"size", "unsigned long", 20},
    {"resolution", "string", 1024},
    {"importUri", "none", 256},
    {"protocolInfo", "string", 1024},
    {"childCount", "string", 1024},
    {"id", "string", 1024},
    {"includeDerived", "boolean", 5},
    {"parentID", "string", 1024},
    {"searchable", "boolean", 5},
    {"refID", "string", 1024},
    {"restricted", "boolean", 5},
    {"upnp:album", "string", 1024},
    {"upnp:albumArtURI", "string", 1024},
    {"upnp:artist", "string", 1024},
    {"artist", "string", 1024},
    {"upnp:author", "string", 1024},
    {"upnp:class", "none", 256},
    {"upnp:channelName", "string", 1024},
    {"upnp:channelNr", "integer", 11},
    {"upnp:genre", "dc:title", 256},
    {"upnp:writeStatus", "string", 1024},
    {"role", "string", 1024},
    {"upnp:storageMedium", "string", 1024},
    {"dlna:importIfoFileURI", "none", 256},
    {"dlna:resumeUpload", "none", 256},
    {"dlna:dlnaManaged", "none", 256},
    {"tmk:location", "string", 256},
    {"tmk:CaptionInfo", "string", 256},
    {"tmk:CaptionInfoEx", "string", 256},
    {"none", "none", 256},
};

TEST(Didl, TableIsWhatTheFormatAllows) {
  ASSERT_EQ(sizeof(kExpected) / sizeof(kExpected[0]), static_cast<std::size_t>(kDidlPropertyCount));
  for (int i = 0; i < kDidlPropertyCount; ++i) {
    EXPECT_EQ(kExpected[i].name, didl_properties[i].name);
    EXPECT_EQ(kExpected[i].type, didl_properties[i].type);
    EXPECT_EQ(kExpected[i].max_length, didl_properties[i].max_length) << kExpected[i].name;
  }
}

TEST(Didl, EveryPropertyCutsAtItsLength) {
  for (const DIDL_Property& property : didl_properties) {
    const std::size_t longest = static_cast<std::size_t>(property.max_length);
    const std::string tag(property.name);
    for (const std::size_t length : {longest - 1, longest, longest + 1, 2 * longest}) {
      std::string value(length, 'v');
      EXPECT_EQ(0, ValidateDIDLProperty(tag, value));
      EXPECT_EQ(std::min(length, longest), value.size()) << tag;
    }
  }
}

TEST(Didl, DateOfThirtyCharactersLosesOne) {
  std::string value = "2024-01-01T00:00:00.000+01:000";
  ASSERT_EQ(30U, value.size());
  const vex_test::LogCapture log;
  EXPECT_EQ(0, ValidateDIDLProperty("dc:date", value));
  EXPECT_EQ("2024-01-01T00:00:00.000+01:00", value);
  EXPECT_EQ(1, log.Count(4, kTag, "Resizing property from 30 to 29"));
}

TEST(Didl, KeptLineIsLoggedAtTheVeryLengthToo) {
  std::string value(29, 'd');
  const vex_test::LogCapture log;
  EXPECT_EQ(0, ValidateDIDLProperty("dc:date", value));
  EXPECT_EQ(29U, value.size());
  EXPECT_EQ(1, log.Count(4, kTag, "Resizing property from 29 to 29"));
}

TEST(Didl, NamesAreComparedExactly) {
  std::string value(2000, 'v');
  const vex_test::LogCapture log;
  for (const char* tag : {"DC:TITLE", "dc:titl", "title", "dc:title "}) {
    EXPECT_EQ(1, ValidateDIDLProperty(tag, value)) << tag;
  }
  EXPECT_EQ(2000U, value.size());
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Didl, EmptyNameIsInvalid) {
  std::string value = "v";
  const vex_test::LogCapture log;
  EXPECT_EQ(1, ValidateDIDLProperty("", value));
  EXPECT_EQ(1, log.Count(16, kTag, "Invalid DIDL tag!"));
}

TEST(Didl, KeptLastRowMatchesItsOwnSpelling) {
  std::string value(300, 'v');
  EXPECT_EQ(0, ValidateDIDLProperty("none", value));
  EXPECT_EQ(256U, value.size());
}

std::string EscapedTimes(int passes, const std::string& text) {
  std::string out = "untouched";
  EXPECT_EQ(0, EscapeMetaDataValue(passes, text, out));
  return out;
}

TEST(MetaData, IsEscapedPassByPass) {
  EXPECT_EQ("&amp;", EscapedTimes(1, "&"));
  EXPECT_EQ("&amp;amp;", EscapedTimes(2, "&"));
  EXPECT_EQ("&amp;amp;amp;", EscapedTimes(3, "&"));
  EXPECT_EQ("a&amp;lt;b", EscapedTimes(2, "a<b"));
}

TEST(MetaData, TextWithoutSpecialCharactersIsItself) {
  EXPECT_EQ("plain text", EscapedTimes(3, "plain text"));
  EXPECT_EQ("plain", EscapedTimes(2147483647, "plain"));
}

TEST(MetaData, WithoutPassTheOutputIsLeftAlone) {
  EXPECT_EQ("untouched", EscapedTimes(0, "&"));
  EXPECT_EQ("untouched", EscapedTimes(-1, "&"));
}

TEST(MetaData, EmptyTextGivesAnEmptyText) {
  EXPECT_EQ("", EscapedTimes(2, ""));
  EXPECT_EQ("", EscapedTimes(0, ""));
}

std::string Resized(std::string text) {
  ResizeEscapedString(text);
  return text;
}

TEST(EscapedString, LosesABrokenEntityAtItsEnd) {
  EXPECT_EQ("abc", Resized("abc&am"));
  EXPECT_EQ("abc", Resized("abc&"));
  EXPECT_EQ("", Resized("&lt"));
  EXPECT_EQ("a&amp;", Resized("a&amp;&l"));
}

TEST(EscapedString, WholeEntitiesStay) {
  for (const char* text : {"", "abc", "a&amp;", "a&amp;b", "a& b;c", ";"}) {
    EXPECT_EQ(text, Resized(text));
  }
}

std::string Decoded(const std::string& text) {
  std::string out = "+";
  EXPECT_EQ(0, UnescapeXmlValue(text, out));
  return out;
}

TEST(XmlValue, EntitiesAreDecodedBehindWhatIsThere) {
  EXPECT_EQ("+plain", Decoded("plain"));
  EXPECT_EQ("+\" <>&", Decoded("&quot;&nbsp;&lt;&gt;&amp;"));
  EXPECT_EQ("+a<b>c'd\"e f", Decoded("a&lt;b&gt;c&apos;d&quot;e&nbsp;f"));
  EXPECT_EQ("+&lt;", Decoded("&amp;lt;"));
}

TEST(XmlValue, NumbersGiveOneByte) {
  EXPECT_EQ("+A", Decoded("&#65;"));
  EXPECT_EQ("+A", Decoded("&#x41;"));
  EXPECT_EQ("+AB", Decoded("&#65;&#66;"));
  EXPECT_EQ("+A", Decoded("&#321;"));
  EXPECT_EQ(std::string("+\0x", 3), Decoded("&#0;x"));
  EXPECT_EQ("+\xFF", Decoded("&#xFFF;"));
}

TEST(XmlValue, KeptWhatIsNoNumberGivesANul) {
  EXPECT_EQ(std::string("+\0", 2), Decoded("&#;"));
  // The number that stands behind is found, and read where the first one would have its digits.
  EXPECT_EQ(std::string("+\0", 2), Decoded("&b&#65;"));
}

TEST(XmlValue, EmptyTextIsAFailure) {
  std::string out = "+";
  EXPECT_EQ(1, UnescapeXmlValue("", out));
  EXPECT_EQ("+", out);
}

TEST(XmlValue, TextEndsAtItsFirstNul) { EXPECT_EQ("+ab", Decoded(std::string("ab\0&lt;", 7))); }

TEST(XmlValue, WhatBeginsLikeAnEntityThatIsNowhereStays) {
  for (const char* text : {"&quo", "&n", "&g", "&l;", "&a", "&q", "&", "& b", "a&b;"}) {
    EXPECT_EQ(std::string("+") + text, Decoded(text));
  }
}

TEST(XmlValue, KeptEntityIsLookedForAnywhereBehind) {
  // The second one is taken for what the first would have been.
  EXPECT_EQ("+<<", Decoded("&lxx&lt;"));
  EXPECT_EQ("+\"", Decoded("&q&quot;").substr(0, 2));
  // An apostrophe near an ampersand is taken for one.
  EXPECT_EQ("+<&&;", Decoded("&lt;&amp;&apos;"));
  EXPECT_EQ("+&;&", Decoded("&apos;&amp;"));
}

TEST(XmlValue, KeptSearchBeginsBehindWhatWasWritten) {
  // Two characters have been written, and from there on there is another whole entity.
  EXPECT_EQ("+\"\"\"", Decoded("&quot;&quot;&q"));
  // Five have been written, and the only entity begins before that.
  EXPECT_EQ("+<aaaa&lx", Decoded("&lt;aaaa&lx"));
}

struct Info {
  int result;
  std::string a = "-";
  std::string b = "-";
  std::string c = "-";
  std::string d = "-";
  std::string Three() const { return a + "|" + b + "|" + c; }
  std::string Four() const { return Three() + "|" + d; }
};

Info SplitInThree(const std::string& text) {
  Info info;
  info.result = ParseProtocolInfo(text, info.a, info.b, info.c);
  return info;
}

Info SplitInFour(const std::string& text) {
  Info info;
  info.result = ParseProtocolInfo(text, info.a, info.b, info.c, info.d);
  return info;
}

TEST(ProtocolInfo, ThreeOutputsPassOverTheNetwork) {
  const Info info = SplitInThree("http-get:*:audio/mpeg:*");
  EXPECT_EQ(1, info.result);
  EXPECT_EQ("http-get|audio/mpeg|*", info.Three());
  EXPECT_EQ("a|c|d:e", SplitInThree("a:b:c:d:e").Three());
  EXPECT_EQ("||", SplitInThree(":::").Three());
}

TEST(ProtocolInfo, WithoutColonNothingIsSet) {
  const Info info = SplitInThree("http-get");
  EXPECT_EQ(0, info.result);
  EXPECT_EQ("-|-|-", info.Three());
  EXPECT_EQ("-|-|-", SplitInThree("").Three());
}

TEST(ProtocolInfo, WithTwoColonsOnlyTheFirstFieldIsSet) {
  const Info info = SplitInThree("http-get:*:audio/mpeg");
  EXPECT_EQ(0, info.result);
  EXPECT_EQ("http-get|-|-", info.Three());
}

TEST(ProtocolInfo, KeptWithOneColonTheFirstFieldComesTwice) {
  const Info info = SplitInThree("http-get:rest");
  EXPECT_EQ(1, info.result);
  EXPECT_EQ("http-get|http-get|rest", info.Three());
}

TEST(ProtocolInfo, FourOutputsTakeAllFields) {
  const Info info = SplitInFour("http-get:*:audio/mpeg:DLNA.ORG_PN=MP3:x");
  EXPECT_EQ(1, info.result);
  EXPECT_EQ("http-get|*|audio/mpeg|DLNA.ORG_PN=MP3:x", info.Four());
}

TEST(ProtocolInfo, FourOutputsStopAtTheFirstMissingColon) {
  EXPECT_EQ(0, SplitInFour("a").result);
  EXPECT_EQ("-|-|-|-", SplitInFour("a").Four());
  EXPECT_EQ(0, SplitInFour("a:b").result);
  EXPECT_EQ("a|-|-|-", SplitInFour("a:b").Four());
  EXPECT_EQ(0, SplitInFour("a:b:c").result);
  EXPECT_EQ("a|b|-|-", SplitInFour("a:b:c").Four());
}

std::string IpOf(const std::string& uri, int expected) {
  std::string ip = "-";
  EXPECT_EQ(expected, GetIPFromResource(uri, ip)) << uri;
  return ip;
}

TEST(ResourceUrl, HostStandsInFrontOfThePort) {
  EXPECT_EQ("10.0.0.1", IpOf("http://10.0.0.1:8200/MediaItems/1.mp3", 0));
  EXPECT_EQ("", IpOf("http://:80/", 0));
}

TEST(ResourceUrl, KeptColonOfThePathEndsTheHostToo) {
  EXPECT_EQ("host/a", IpOf("http://host/a:b", 0));
}

TEST(ResourceUrl, WithoutPortThereIsNoHostAndAnotherTag) {
  const vex_test::LogCapture log;
  EXPECT_EQ("-", IpOf("http://10.0.0.1/x", 1));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_MRCP", "Error in the URL"));
}

TEST(ResourceUrl, OtherSchemesAreRefused) {
  for (const char* uri :
       {"", "HTTP://10.0.0.1:80/", "https://10.0.0.1:80/", "http:/", "10.0.0.1:80"}) {
    const vex_test::LogCapture log;
    EXPECT_EQ("-", IpOf(uri, 1));
    EXPECT_EQ(1, log.Count(16, kTag, "URI empty!!!")) << uri;
  }
}

TEST(ListArgument, IsAppendedUnlessItHasNoName) {
  std::list<CPUtilsArgument> list;
  SetListArgument("a", "1", list);
  SetListArgument("", "2", list);
  SetListArgument("b", "", list);
  ASSERT_EQ(2U, list.size());
  EXPECT_EQ("a=1", list.front().name + "=" + list.front().value);
  EXPECT_EQ("b=", list.back().name + "=" + list.back().value);
}

}  // namespace
}  // namespace cp_utils
}  // namespace vex_upnp
