#ifndef VEXUPNPCP_EMBEDDEDXMLPARSER_H_
#define VEXUPNPCP_EMBEDDEDXMLPARSER_H_

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include <vexupnpcp/export.h>
#include <vexupnpcp/makedomtree.h>

namespace vex_upnp {
namespace utils {

/// State of the scanner over one text, and the tree made from it.
///
/// The nodes refer to this record and to the text: it is neither moved nor reassigned while they
/// are in use. A copy shares the nodes; their memory goes with the last record that holds `nodes`.
struct DomParser {
  /// Length of the last token.
  std::int32_t tokenLength = 0;
  /// Number of start tags without their end tag.
  std::int32_t depth = 0;
  /// Next character to read.
  char* cursor = nullptr;
  char* buffer = nullptr;
  /// One past the NUL that ends the text.
  char* end = nullptr;
  char* tokenStart = nullptr;
  DomNode* document = nullptr;
  /// Memory of the nodes; not for hosts.
  boost::shared_ptr<DomNodePool> nodes;
};

/// Codes of EmXmlParser::NextToken.
enum XmlToken : int {
  /// End of the text, or a run of text that ran into it.
  kXmlTokenEnd = -1,
  /// `<!` of neither a comment nor a CDATA section; the cursor stands behind the `<`.
  kXmlTokenDeclaration = 0,
  kXmlTokenInstructionStart = 1,  ///< `<?`
  kXmlTokenInstructionEnd = 2,    ///< `?>`
  kXmlTokenCommentStart = 3,      ///< `<!--`
  kXmlTokenCommentEnd = 4,        ///< `-->`
  kXmlTokenSingleQuote = 5,
  kXmlTokenDoubleQuote = 6,
  kXmlTokenEqual = 7,
  kXmlTokenText = 8,
  kXmlTokenTagStart = 9,      ///< `<`
  kXmlTokenEndTagStart = 10,  ///< `</`
  kXmlTokenTagEnd = 11,       ///< `>`
  kXmlTokenEmptyTagEnd = 12,  ///< `/>`
  /// A run of white space; its length counts as 1.
  kXmlTokenSpace = 13,
  kXmlTokenCdataStart = 14,  ///< `<![CDATA[`
  kXmlTokenCdataEnd = 15     ///< `]]>`
};

/// A scanner for small documents from devices that need not be friends. It works in place: names
/// and values are ended by NUL bytes written into the text. Structural faults are rejected; prolog,
/// instructions, comments and CDATA sections are read past; a document type declaration is a fault,
/// so no entity can be declared. The time is linear in the text, the stack does not grow with it.
class EmXmlParser {
 public:
  /// Points a parser at a text.
  ///
  /// @param text    Ends with a NUL at `text[size]`; is overwritten by parsing and must outlive the
  ///                nodes, whence it must be writable although the type says otherwise.
  /// @param size    Length in bytes without the NUL.
  /// @param parser  All fields are set; nodes of an earlier document are let go.
  /// @return 0; -1 for a null text or a size that is not positive, with the parser as it was.
  VEX_EXPORT static int InitializeCParser(const char* text, int size, DomParser& parser);

  /// Reads one token and sets `tokenStart` and `tokenLength`.
  /// @return an XmlToken.
  VEX_EXPORT static int NextToken(DomParser& parser);

  /// Reads a value up to a delimiter, which is not consumed. A delimiter behind a backslash belongs
  /// to the value, unless it is the value's second character; the backslash stays.
  ///
  /// @return 8, or 13 when all of the value is white space; 0 for an empty value; -1 when the text
  ///         ends first.
  VEX_EXPORT static int NextToken2(char delimiter, DomParser& parser);

  /// Reads tokens until one is no white space.
  /// @return that token.
  VEX_EXPORT static int SkipSpaces(DomParser& parser);

  /// Reads the whole text into a tree, whose root becomes `document`.
  /// @return 0; -1 with one log line that numbers the fault. The nodes made so far stay with the
  ///         parser.
  VEX_EXPORT static int ParseXmlData(DomParser& parser);

 private:
  friend class XmlScanner;

  static bool SetTokens();
  static bool IsWhiteSpace(char character);

  // Non-zero for the characters that can end a run of text.
  static int tokens_[128];
  // The same and the NUL, for every byte.
  static unsigned char ends_run_[256];
  static bool flag_;
};

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_EMBEDDEDXMLPARSER_H_
