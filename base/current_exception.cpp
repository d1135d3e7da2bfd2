#include "base/current_exception.h"

#include <exception>
#include <new>
#include <string>

namespace vex_upnp {
namespace {

// `format` is one of our own texts, yet not a literal here, so its single "%s" is filled by hand.
std::string FillIn(const std::string& format, const char* text) {
  const std::size_t place = format.find("%s");
  if (place == std::string::npos) return format;
  return format.substr(0, place) + text + format.substr(place + 2);
}

}  // namespace

void LogCurrentException(const LogSite& site, int level, const char* tag, const char* known,
                         const char* unknown) {
  if (!log::IsOpen()) return;
  try {
    // cppcheck-suppress rethrowNoCurrentException; every caller stands inside a catch (...).
    throw;
  } catch (const std::exception& error) {
    // What was thrown may be the want of memory itself; nothing may leave the edge all the same.
    try {
      log::WriteLine(site, level, tag, "%s", FillIn(known, error.what()).c_str());
    } catch (const std::bad_alloc&) {
      log::WriteLine(site, level, tag, "%s", error.what());
    }
  } catch (...) {
    log::WriteLine(site, level, tag, "%s", unknown);
  }
}

bool CaughtNoMemory() {
  try {
    // cppcheck-suppress rethrowNoCurrentException; every caller stands inside a catch (...).
    throw;
  } catch (const std::bad_alloc&) {
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace vex_upnp
