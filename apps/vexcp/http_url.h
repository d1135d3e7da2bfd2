#ifndef VEXCP_HTTP_URL_H_
#define VEXCP_HTTP_URL_H_

#include <string>

namespace vexcp {

// An http URL (RFC 9110), cut up.
struct HttpUrl {
  std::string host;
  int port = 80;
  // As it goes into the request line: begins with "/", without a fragment; what may not stand there
  // is escaped.
  std::string target;

  // As it goes into the Host header.
  std::string Authority() const;
  // The last piece of the path, decoded; "index.html" when the path ends in "/".
  std::string FileName() const;
  // What a Location header means, seen from here.
  HttpUrl Follow(const std::string& location) const;
};

// Throws Failure.
HttpUrl ParseHttpUrl(const std::string& text);

// A name as one piece of a path.
std::string EscapePathPiece(const std::string& name);
// "%XX" decoded.
std::string UnescapePath(const std::string& path);

}  // namespace vexcp

#endif  // VEXCP_HTTP_URL_H_
