#ifndef VEXCP_BYTE_RANGE_H_
#define VEXCP_BYTE_RANGE_H_

#include <string>

namespace vexcp {

// What a request wants of a resource (RFC 9110, section 14).
struct ByteRange {
  enum class Kind {
    // All of it: no range was asked for, or one in a form that is not served, such as several.
    kWhole,
    kPart,
    // Nothing that is there.
    kUnsatisfiable
  };
  Kind kind = Kind::kWhole;
  long long first = 0;
  // Bytes.
  long long length = 0;
};

// `header` is the value of Range, empty without one; `size` that of the resource.
ByteRange FindRange(const std::string& header, long long size);

}  // namespace vexcp

#endif  // VEXCP_BYTE_RANGE_H_
