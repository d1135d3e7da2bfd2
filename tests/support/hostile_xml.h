#ifndef VEXUPNPCP_TESTS_SUPPORT_HOSTILE_XML_H_
#define VEXUPNPCP_TESTS_SUPPORT_HOSTILE_XML_H_

#include <string>
#include <vector>

namespace vex_test {

struct HostileXml {
  std::string name;
  std::string text;
};

std::string RepeatedText(const std::string& piece, std::size_t times);

// What may stand where the content of an element is expected.
std::vector<HostileXml> HostileContents();

// The same, as large as it gets: megabytes.
std::vector<HostileXml> HugeContents();

// Whole documents that are never to be taken for the good one which they are made of.
std::vector<HostileXml> SpoiledDocuments(const std::string& good);

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_HOSTILE_XML_H_
