#ifndef VEXUPNPCP_STRING_UTILS_H_
#define VEXUPNPCP_STRING_UTILS_H_

#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

/// Texts and URIs: trimming, copying, searching, taking apart.
///
/// What holds for all functions: any thread, no state, nothing is called back, nothing throws;
/// without memory they fail. White space is blank, TAB, FF, VT, LF and CR, in every locale. Results
/// are assigned, not appended, and stay untouched on failure. Each function has its own result
/// convention; compare with the named constants of result_codes.h.
class VEX_EXPORT StringUtils {
 public:
  /// Copies a text with its NUL into a block from `malloc`, which the caller gives back by `free`.
  ///
  /// @param text  May hold NUL bytes; they are copied too.
  /// @return The copy; null for an empty text or without memory.
  static char* GetValue(const std::string& text);

  /// Copies a C string into a block from `malloc`, which the caller gives back by `free`.
  ///
  /// @param text  May be null.
  /// @return The copy; null for a null or empty text or without memory.
  static char* StrDup(const char* text);

  /// Erases leading white space.
  static void TrimStringOnLeft(std::string& text);

  /// Erases trailing white space; a text of nothing else becomes empty.
  static void TrimStringOnRight(std::string& text);

  /// Erases white space at both ends.
  static void TrimString(std::string& text);

  /// Searches a buffer that need not end in NUL, in one pass that never steps back: behind a
  /// partial match the search goes on after the byte that failed, so a match that overlaps a
  /// partial one is missed ("ab" is not found in "aab").
  ///
  /// @param haystack  May be null.
  /// @param length    Bytes of the haystack.
  /// @param needle    C string; may be null.
  /// @return The match inside the haystack; null for no match, for a null or empty argument, and
  ///         when the haystack is shorter than the needle.
  static const char* StrNStr(const char* haystack, unsigned int length, const char* needle);

  /// The 32-bit hash of a text (times 33, exclusive-or, bytes taken as signed), in decimal.
  ///
  /// @param hash  Receives the digits; untouched when the result is false.
  /// @return false for an empty text and for a hash of 0.
  static bool GetHashValue(const std::string& text, std::string& hash);

  /// Percent-encodes blank, DEL and the ASCII punctuation of one value that is to travel inside a
  /// URI; slash, colon, dot, hyphen and underscore included, so it is not for whole URIs. Bytes
  /// below 0x20 and from 0x80 on pass as they are.
  ///
  /// @param in   The value; an empty one leaves `out` untouched.
  /// @param out  Receives the encoded text; may be the same object as `in`.
  static void EscapeURI(const std::string& in, std::string& out);

  /// Takes "scheme://host:port/path" apart. The port must be there. The colon is searched in all
  /// that stands behind the slashes, so a colon in the path of a URI without port is taken for it.
  ///
  /// Not the same as ParseRelayURI, which has defaults, nor as what discovery does with LOCATION.
  ///
  /// @param port  Any integer; its range is not checked.
  /// @param path  From the slash on, query included; "/" when there is none.
  /// @return true on success. On false the outputs are untouched.
  static bool ParseURI(const std::string& uri, std::string& host, int& port, std::string& path);

  /// Takes a URI apart that may lack its scheme, with port "80" and path "/" where they are absent.
  ///
  /// @param port  As text, unchecked.
  /// @return result::kOk; result::kFailure for an empty URI.
  static int ParseRelayURI(const std::string& uri, std::string& host, std::string& port,
                           std::string& path);

  /// Makes the full URL of a reference that a description holds.
  ///
  /// A reference that begins with "/" is joined to `url_base` without a double slash, or to
  /// "http://host:port" when there is no base; one that begins with "http://", in any case, stays
  /// as it is; any other is put behind `url_base`, or else `location_base`, and a slash. In the
  /// last case a base that ends with a slash gives a double slash.
  ///
  /// @param uri            The reference; not empty.
  /// @param url_base       Base URL from the description; may be empty.
  /// @param host           Host the description came from; not empty.
  /// @param port           Its port.
  /// @param location_base  URL of the description without its last segment; may be empty.
  /// @param absolute       Receives the URL.
  /// @return result::kOk; result::kBadInput when `uri` or `host` is empty; result::kNoMemory.
  static int GetAbsoluteUri(const std::string& uri, const std::string& url_base,
                            const std::string& host, const int& port,
                            const std::string& location_base, std::string& absolute);
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_STRING_UTILS_H_
