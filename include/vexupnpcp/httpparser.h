#ifndef VEXUPNPCP_HTTPPARSER_H_
#define VEXUPNPCP_HTTPPARSER_H_

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/httpinfo.h>

namespace vex_upnp {
namespace utils {

class VEX_EXPORT HTTPParser {
 public:
  static int Parse(const void* data, const unsigned int& length, boost::shared_ptr<HTTPInfo>& info);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_HTTPPARSER_H_
