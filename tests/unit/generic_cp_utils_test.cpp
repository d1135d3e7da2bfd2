#include "src/generic_cp_utils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"

namespace vex_upnp {
namespace generic_cp {
namespace {

using cp_discovery::DetailedDeviceInfo;
using cp_discovery::DeviceIconInfo;
using cp_discovery::DeviceInfo;
using cp_discovery::DeviceServiceInfo;
using cp_utils::CPUtilsArgument;
using vex_test::EachAllocationFails;

DeviceIconInfo Icon(const std::string& url) { return {"image/png", url, "120", "110", "24"}; }

DeviceServiceInfo Service(const std::string& id) {
  return {"key-" + id,   "owner-" + id, "type-" + id, "id-" + id,
          "/scpd-" + id, "/ctl-" + id,  "/evt-" + id};
}

DeviceInfo ShortDevice() {
  return {"Hall",     "uuid:1+lan0",
          "[TV]Hall", "urn:schemas-upnp-org:device:MediaServer:1",
          "lan0",     {Icon("/a.png"), Icon("/b.png")}};
}

DetailedDeviceInfo LongDevice() {
  DetailedDeviceInfo device;
  device.friendly_name = "Hall";
  device.udn = "uuid:1+lan0";
  device.device_ip = "10.77.0.2";
  device.local_ip = "10.77.0.1";
  device.interface_name = "lan0";
  device.url_base = "http://10.77.0.2:80/";
  device.device_port = 49152;
  device.location = "http://10.77.0.2:49152/d.xml";
  device.serial_number = "SN7";
  device.manufacturer = "Maker";
  device.model_name = "Model";
  device.model_number = "7";
  device.device_type = "urn:schemas-upnp-org:device:MediaServer:1";
  device.description_path = "/d.xml";
  device.description_xml = "<root/>";
  device.display_name = "[TV]Hall";
  device.icons = {Icon("http://10.77.0.2:49152/a.png")};
  device.services = {Service("1"), Service("2")};
  device.device_domain = 2;
  device.model_description = "not handed out";
  return device;
}

void ExpectIcon(const std::string& url, const CPDeviceIcon* icon) {
  ASSERT_NE(nullptr, icon);
  EXPECT_STREQ("image/png", icon->mimetype);
  EXPECT_STREQ("120", icon->width);
  EXPECT_STREQ("110", icon->height);
  EXPECT_STREQ("24", icon->depth);
  EXPECT_STREQ(url.c_str(), icon->url);
}

TEST(GenericCpUtils, DeviceInfoIsCopiedFieldByField) {
  DeviceInfo source = ShortDevice();
  CPDeviceInfo* converted = nullptr;
  ASSERT_EQ(CP_ERR_NONE, GetCPDeviceInfoFromDeviceInfo(&converted, source));
  const Owned<CPDeviceInfo, FreeCPDeviceInfo> info(converted);
  EXPECT_STREQ("Hall", info->friendly_name);
  EXPECT_STREQ("uuid:1+lan0", info->udn);
  EXPECT_STREQ("[TV]Hall", info->display_name);
  EXPECT_STREQ("urn:schemas-upnp-org:device:MediaServer:1", info->device_type);
  EXPECT_STREQ("lan0", info->interface_name);
  EXPECT_EQ(nullptr, info->next);
  ExpectIcon("/a.png", info->icons);
  ExpectIcon("/b.png", info->icons->next);
  EXPECT_EQ(nullptr, info->icons->next->next);
}

TEST(GenericCpUtils, EmptyTextsBecomeEmptyStringsAndEmptyListsNull) {
  DeviceInfo source;
  CPDeviceInfo* converted = nullptr;
  ASSERT_EQ(CP_ERR_NONE, GetCPDeviceInfoFromDeviceInfo(&converted, source));
  const Owned<CPDeviceInfo, FreeCPDeviceInfo> info(converted);
  for (const char* text : {info->friendly_name, info->udn, info->display_name, info->device_type,
                           info->interface_name}) {
    EXPECT_STREQ("", text);
  }
  EXPECT_EQ(nullptr, info->icons);
}

TEST(GenericCpUtils, DetailedInfoIsCopiedFieldByField) {
  DetailedDeviceInfo source = LongDevice();
  CPDetailedDeviceInfo* converted = nullptr;
  ASSERT_EQ(CP_ERR_NONE, GetCPDetailedDeviceInfoFromDetailedDeviceInfo(&converted, source));
  const Owned<CPDetailedDeviceInfo, FreeCPDetailedDeviceInfo> info(converted);
  EXPECT_STREQ("Hall", info->friendly_name);
  EXPECT_STREQ("uuid:1+lan0", info->udn);
  EXPECT_STREQ("[TV]Hall", info->display_name);
  EXPECT_STREQ("urn:schemas-upnp-org:device:MediaServer:1", info->device_type);
  EXPECT_STREQ("10.77.0.2", info->device_ip);
  EXPECT_STREQ("10.77.0.1", info->local_ip);
  EXPECT_STREQ("lan0", info->interface_name);
  EXPECT_STREQ("http://10.77.0.2:80/", info->url_base);
  EXPECT_EQ(49152, info->device_port);
  EXPECT_STREQ("http://10.77.0.2:49152/d.xml", info->location);
  EXPECT_STREQ("SN7", info->serial_number);
  EXPECT_STREQ("Maker", info->manufacturer);
  EXPECT_STREQ("Model", info->model_name);
  EXPECT_STREQ("7", info->model_number);
  EXPECT_STREQ("/d.xml", info->description_path);
  EXPECT_STREQ("<root/>", info->description_xml);
  EXPECT_EQ(2, info->device_domain);
  ExpectIcon("http://10.77.0.2:49152/a.png", info->icons);
  EXPECT_EQ(nullptr, info->icons->next);
  const CPDeviceServiceInfo* const first = info->services;
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("key-1", first->service_key);
  EXPECT_STREQ("owner-1", first->service_owner);
  EXPECT_STREQ("type-1", first->service_type);
  EXPECT_STREQ("id-1", first->service_id);
  EXPECT_STREQ("/scpd-1", first->scpd_url);
  EXPECT_STREQ("/ctl-1", first->control_url);
  EXPECT_STREQ("/evt-1", first->event_sub_url);
  ASSERT_NE(nullptr, first->next);
  EXPECT_STREQ("id-2", first->next->service_id);
  EXPECT_EQ(nullptr, first->next->next);
}

TEST(GenericCpUtils, UnknownDomainsBecomeZero) {
  const std::vector<std::pair<int, int>> domains = {{1, 1}, {2, 2}, {3, 3},
                                                    {0, 0}, {4, 0}, {-1, 0}};
  for (const auto& row : domains) {
    DetailedDeviceInfo source;
    source.device_domain = row.first;
    CPDetailedDeviceInfo* converted = nullptr;
    ASSERT_EQ(CP_ERR_NONE, GetCPDetailedDeviceInfoFromDetailedDeviceInfo(&converted, source));
    const Owned<CPDetailedDeviceInfo, FreeCPDetailedDeviceInfo> info(converted);
    EXPECT_EQ(row.second, info->device_domain) << row.first;
  }
}

TEST(GenericCpUtils, ArgumentsKeepTheirOrder) {
  std::list<CPUtilsArgument> source = {{"A", "1"}, {"B", ""}, {"A", "3"}};
  CPArgument* converted = nullptr;
  ASSERT_EQ(CP_ERR_NONE, GetCPArgumentListFromArgumentList(&converted, source));
  const Owned<CPArgument, FreeCPArgumentList> list(converted);
  EXPECT_STREQ("A", list->name);
  EXPECT_STREQ("1", list->value);
  EXPECT_STREQ("B", list->next->name);
  EXPECT_STREQ("", list->next->value);
  EXPECT_STREQ("A", list->next->next->name);
  EXPECT_STREQ("3", list->next->next->value);
  EXPECT_EQ(nullptr, list->next->next->next);
}

TEST(GenericCpUtils, NoArgumentsGiveNull) {
  std::list<CPUtilsArgument> none;
  CPArgument untouched = {};
  CPArgument* list = &untouched;
  EXPECT_EQ(CP_ERR_NONE, GetCPArgumentListFromArgumentList(&list, none));
  EXPECT_EQ(nullptr, list);
}

TEST(GenericCpUtils, NullOutputsAreRefused) {
  DeviceInfo device;
  DetailedDeviceInfo detailed;
  DeviceIconInfo icon;
  DeviceServiceInfo service;
  std::list<CPUtilsArgument> arguments;
  EXPECT_EQ(CP_ERR_INVALID_PARAMS, GetCPDeviceInfoFromDeviceInfo(nullptr, device));
  EXPECT_EQ(CP_ERR_INVALID_PARAMS,
            GetCPDetailedDeviceInfoFromDetailedDeviceInfo(nullptr, detailed));
  EXPECT_EQ(CP_ERR_INVALID_PARAMS, GetCPDeviceIconFromDeviceIcon(nullptr, icon));
  EXPECT_EQ(CP_ERR_INVALID_PARAMS, GetCPDeviceServiceFromDeviceService(nullptr, service));
  EXPECT_EQ(CP_ERR_INVALID_PARAMS, GetCPArgumentListFromArgumentList(nullptr, arguments));
}

TEST(GenericCpUtils, NullRecordsAreFreedWithoutHarm) {
  FreeCPDeviceInfo(nullptr);
  FreeCPDetailedDeviceInfo(nullptr);
  FreeCPDeviceIcon(nullptr);
  FreeCPDeviceServiceInfo(nullptr);
  EXPECT_EQ(CP_ERR_NONE, FreeCPArgumentList(nullptr));
  EXPECT_EQ(CP_ERR_INVALID_PARAMS, FreeCPDeviceInfoList(nullptr));
}

// Each allocation of a conversion fails in turn: the code is the promised one, the output is not
// touched, and the leak checker sees that nothing is left.
template <typename Record, typename Source, typename Code>
int ConvertWithoutMemory(Source source, Code (*convert)(Record**, Source&),
                         void (*release)(Record*)) {
  Record untouched = {};
  Record* out = nullptr;
  int code = 0;
  return EachAllocationFails(
      [&] {
        out = &untouched;
        code = convert(&out, source);
      },
      [&](bool failed) {
        EXPECT_EQ(failed ? CP_ERR_OUT_OF_MEMORY : CP_ERR_NONE, code);
        EXPECT_EQ(failed, out == &untouched);
        if (!failed) release(out);
      });
}

TEST(GenericCpUtils, EachFailedAllocationGivesOutOfMemoryAndLeavesNothing) {
  // A record and its strings, five or seven or fifteen, and the same for each icon and service.
  EXPECT_EQ(6 + 2 * 6,
            ConvertWithoutMemory(ShortDevice(), GetCPDeviceInfoFromDeviceInfo, FreeCPDeviceInfo));
  EXPECT_EQ(16 + 6 + 2 * 8,
            ConvertWithoutMemory(LongDevice(), GetCPDetailedDeviceInfoFromDetailedDeviceInfo,
                                 FreeCPDetailedDeviceInfo));
  EXPECT_EQ(6,
            ConvertWithoutMemory(Icon("/a.png"), GetCPDeviceIconFromDeviceIcon, FreeCPDeviceIcon));
  EXPECT_EQ(8, ConvertWithoutMemory(Service("1"), GetCPDeviceServiceFromDeviceService,
                                    FreeCPDeviceServiceInfo));
  const std::list<CPUtilsArgument> arguments = {{"A", "1"}, {"B", "2"}};
  EXPECT_EQ(6, ConvertWithoutMemory(
                   arguments, GetCPArgumentListFromArgumentList,
                   +[](CPArgument* list) { FreeCPArgumentList(list); }));
}

}  // namespace
}  // namespace generic_cp
}  // namespace vex_upnp
