#ifndef VEXUPNPCP_XMLPARSER_H_
#define VEXUPNPCP_XMLPARSER_H_

#include <string>
#include <vector>

#include <vexupnpcp/export.h>
#include <vexupnpcp/xmlparsedata.h>

// Reading a document element by element.
//
// 1. Order of calls: XmlParserGetDomMA, XmlParserGetFirstNode, then XmlParserGetChildNode,
//    XmlParserGetNextNode and XmlParserStepBackToParentNode as needed, XmlParserFreeNode for each
//    node received, XmlParserDestroy at the end, also after a failure in between.
// 2. The functions count 1 as success and 0 as failure; nothing throws.
// 3. A document belongs to one thread at a time.
// 4. Texts come as they stand in the document: character references are not replaced, see
//    XmlUnescapeValue.

namespace vex_upnp {
namespace utils {

/// Parses a document. The content of CDATA sections is dropped; a document type declaration is a
/// fault. Elements beside the root are taken, text beside it is a fault.
///
/// @param xml     The text up to its first NUL, of less than 2 GiB.
/// @param parser  Must not hold a document, or that one is let go.
/// @return 1, with the cursor nowhere; 0 for an empty text, a fault, or when memory is short.
VEX_EXPORT int XmlParserGetDomMA(const std::string& xml, XmlParser& parser);

/// Puts the cursor on the root element.
///
/// @param node  Receives the element, which the caller frees; null on failure.
/// @return 1; 0 when the document has no element.
VEX_EXPORT int XmlParserGetFirstNode(XmlParser& parser, NodeXml*& node);

/// Descends to the cursor's first child. When there is none, or when it is a text, the cursor is
/// nowhere afterwards and XmlParserStepBackToParentNode brings it back.
///
/// @param node  Receives the child, which the caller frees; null on failure.
/// @return 1; 0 when there is no child element at the first place or the cursor was nowhere.
VEX_EXPORT int XmlParserGetChildNode(XmlParser& parser, NodeXml*& node);

/// Goes on to the cursor's next sibling. A text between two elements ends the walk like the last
/// sibling does.
///
/// @param node  Receives the sibling, which the caller frees; null on failure.
/// @return 1; 0 at the end or when the cursor was nowhere.
VEX_EXPORT int XmlParserGetNextNode(XmlParser& parser, NodeXml*& node);

/// Moves the cursor up to the node that it last descended from, and from there level by level.
VEX_EXPORT void XmlParserStepBackToParentNode(XmlParser& parser);

/// Frees a node received from one of the functions above.
/// @param node  May be null.
VEX_EXPORT void XmlParserFreeNode(NodeXml* node);

/// Frees the document. Calling it twice, or for a parser that holds none, does no harm.
VEX_EXPORT void XmlParserDestroy(XmlParser& parser);

/// @param count  Receives the number of the cursor's children, texts included.
/// @return 1; 0 when the cursor is nowhere.
VEX_EXPORT int XmlGetCurrentNodeChildCount(XmlParser& parser, int& count);

/// @param type  Receives the kind of the cursor's first child: kDomElement or kDomText.
/// @return 1; 0 when there is none or the cursor is nowhere.
VEX_EXPORT int XmlGetCurNodeFirstChildType(XmlParser& parser, int& type);

/// Finds the first attribute whose name begins with a text: `val` finds `value` too.
///
/// @param node   Null gives 0.
/// @param value  Receives its value; written on success only.
/// @return 1 or 0.
VEX_EXPORT int XmlGetAttribute(NodeXml* node, std::string& name, std::string& value);

/// Finds the attribute of exactly this name; otherwise like XmlGetAttribute.
VEX_EXPORT int XmlGetAttributeChar(NodeXml* node, const std::string& name, std::string& value);

/// Finds like XmlGetAttribute.
/// @param out  Receives the whole name that was found; written on success only.
VEX_EXPORT int XmlGetAttributeName(NodeXml* node, std::string& name, std::string& out);

/// Copies all attributes of a node, names and values alternating.
/// @return 1; 0 for a null node.
VEX_EXPORT int XmlGetAllNodeAttributes(NodeXml* node, std::vector<std::string>& attributes);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_XMLPARSER_H_
