// A foreign C++ host, built against the installed library through its CMake package.
#include <iostream>
#include <string>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/framework_controller_cp.h>
#include <vexupnpcp/generic_cp.h>
#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/string_utils.h>

int main() {
  namespace core = vex_upnp::framework_core;
  const std::string answer = "HTTP/1.1 200 OK\r\nUSN: uuid:1\r\n\r\n";
  boost::shared_ptr<vex_upnp::utils::HTTPInfo> info(new vex_upnp::utils::HTTPInfo);
  if (vex_upnp::utils::HTTPParser::Parse(answer.c_str(), static_cast<unsigned>(answer.size()),
                                         info) != 0 ||
      info->GetState() != 1) {
    return 1;
  }
  if (core::StartFrameworkCore() != 101) return 2;
  if (core::InitFrameworkCore("") != 0 || core::StartFrameworkCore() != 0) return 3;
  if (InitializeGenericCP() != 0 || TerminateGenericCP() != 0) return 4;
  if (core::TerminateFrameworkCore() != 0) return 5;
  std::cout << "c++ consumer: ok\n";
  return 0;
}
