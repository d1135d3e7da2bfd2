#include "src/http_feed.h"

#include <climits>

#include <vexupnpcp/httpparser.h>
#include <vexupnpcp/result_codes.h>

#include "base/limits.h"

namespace vex_upnp {
namespace utils {

int FeedParser(const char* data, std::size_t size, boost::shared_ptr<HTTPInfo>& info) {
  // No read is as large; cutting it silently would shift all that follows.
  if (size > UINT_MAX || (info && CannotEnd(*info))) return result::kFailure;
  const int parse_result = HTTPParser::Parse(data, static_cast<unsigned int>(size), info);
  if (parse_result == result::kOk) info->SetParsingStatus(PARSING_CONTINUE);
  return parse_result;
}

bool CannotEnd(const HTTPInfo& info) {
  // Nothing else is kept as body before the header is complete.
  return info.GetStatus() < HEADER_COMPLETE && info.GetProcessedBodySize() > 0;
}

bool HeaderFits(const HTTPInfo& info) {
  return info.raw_header_.size() <= limits::kHttpHeaderBytes && !info.has_too_many_lines_;
}

bool AdoptBlock(char* block, std::size_t size, HTTPInfo& info) {
  return size > 0 && size <= UINT_MAX && info.AdoptData(block, static_cast<unsigned int>(size));
}

}  // namespace utils
}  // namespace vex_upnp
