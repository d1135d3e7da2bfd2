#ifndef VEXUPNPCP_HTTPINFO_H_
#define VEXUPNPCP_HTTPINFO_H_

#include <string>
#include <vector>

#include <vexupnpcp/export.h>
#include <vexupnpcp/vexuncopyable.h>

namespace vex_upnp {
namespace utils {

enum HTTPRequest : int {
  HTTP_GET = 0,
  HTTP_HEAD = 1,
  HTTP_POST = 2,
  HTTP_NOTIFY = 3,
  HTTP_SUBSCRIBE = 4,
  HTTP_UNSUBSCRIBE = 5,
  HTTP_MSEARCH = 6,
  HTTP_UNKNOWN_REQUEST = 7
};

enum EncodingType : int {
  ENC_UNIDENTIFIED = 0,
  ENC_NO_BODY = 1,
  ENC_CONTENT_LENGTH = 2,
  ENC_CHUNKED = 3,
  ENC_UNTIL_CLOSE = 4
};

enum ParsingStatus : int { PARSING_CONTINUE = 0, PARSING_RETURN = 1 };

enum Protocol : int { PROTOCOL_TCP = 1, PROTOCOL_UDP = 2 };

struct NameValue {
  std::string name;
  std::string value;
};

VEX_EXPORT std::string GetStatusString(unsigned int code);
VEX_EXPORT std::string GetRequestString(HTTPRequest request);
VEX_EXPORT HTTPRequest GetRequestType(const std::string& method);

class VEX_EXPORT HTTPInfo : public VEXUncopyable {
 public:
  HTTPInfo();
  ~HTTPInfo() override;

  int GetStartLine(std::string& start_line);
  int GetHeaderValue(const char* name, std::string& value);
  bool CheckStringValidity(const std::string& text) const;
  unsigned long long GetContentLength() const;
  int GetStatus() const;
  int GetState() const;
  void SetParsingStatus(const ParsingStatus& status);
  ParsingStatus GetParsingStatus() const;
  void GetHTTPVersion(int& major, int& minor) const;
  int GetURI(std::string& uri) const;
  const char* GetHex(const char* data, const unsigned int& length, unsigned int& consumed);
  void SetClientIpAddress(const std::string& ip);
  void GetClientIpAddress(std::string& ip) const;
  void SetMyIpAddress(const std::string& ip);
  void GetMyIpAddress(std::string& ip) const;
  void SetClientPort(const int& port);
  void GetClientPort(int& port) const;
  HTTPRequest GetRequestType() const;
  unsigned int GetStatusCode() const;
  bool IsRequest() const;
  void CleanInfo();
  int ReadBody(std::string& body);
  int GetHeader(std::vector<NameValue*>& headers);
  int GetHeader(std::string& header);
  int StoreData(const char* data, const unsigned int& length);
  int SetHeader(const std::string& name, const std::string& value);
  unsigned long long GetProcessedBodySize() const;
  char* GetBody(unsigned int& size);
  void FormatStartLine();

 private:
  friend class HTTPParser;
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_HTTPINFO_H_
