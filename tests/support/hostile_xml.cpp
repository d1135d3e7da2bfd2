#include "tests/support/hostile_xml.h"

#include "tests/support/sanitizers.h"

namespace vex_test {
namespace {

// A sanitizer looks at each access, and is as good at finding a bad one in a tenth of all this.
constexpr std::size_t kShare = kUnderSanitizer ? 10 : 1;
constexpr std::size_t kMebibyte = 1024 * 1024;

std::string Bomb() {
  std::string text = "<!DOCTYPE bomb [<!ENTITY a0 \"ha\">";
  for (int i = 1; i < 30; ++i) {
    const std::string last = "&a" + std::to_string(i - 1) + ";";
    text += "<!ENTITY a" + std::to_string(i) + " \"" + last + last + "\">";
  }
  return text + "]>";
}

std::string InUtf16(const std::string& text) {
  std::string wide = "\xFF\xFE";
  for (const char c : text) {
    wide += c;
    wide += '\0';
  }
  return wide;
}

// Behind the declaration, if there is one.
std::string WithProlog(const std::string& prolog, const std::string& document) {
  const std::size_t end = document.find("?>");
  const std::size_t at = end == std::string::npos ? 0 : end + 2;
  return document.substr(0, at) + prolog + document.substr(at);
}

}  // namespace

std::string RepeatedText(const std::string& piece, std::size_t times) {
  std::string text;
  text.reserve(piece.size() * times);
  for (std::size_t i = 0; i < times; ++i) text += piece;
  return text;
}

std::vector<HostileXml> HostileContents() {
  std::vector<HostileXml> contents = {
      {"lone ampersand", "&"},
      {"reference to NUL", "&#0;"},
      {"reference to more than there is", "&#xFFFFFFFF;"},
      {"reference past 32 bits", "&#99999999999;"},
      {"negative reference", "&#-1;"},
      {"empty reference", "&#;"},
      {"entity of nobody", "&bomb;"},
      {"10,000 references", RepeatedText("&#65;", 10000)},
      {"10,000 different references",
       [] {
         std::string text;
         for (int i = 1; i <= 10000; ++i) text += "&#" + std::to_string(i) + ";";
         return text;
       }()},
      {"references to ampersands", RepeatedText("&#38;#38;amp;", 2000)},
      {"a NUL", std::string("a\0b", 3)},
      {"invalid UTF-8", "\xC0\x80\xED\xA0\x80\xF5\xFF\xFE\x80"},
      {"CDATA", "<![CDATA[<a>&]]>"},
      {"CDATA between texts", "x<![CDATA[y]]>z<![CDATA[]]>"},
      {"CDATA without end", "<![CDATA[x"},
      {"the end of a CDATA", "]]>"},
      {"a comment", "<!-- -- -->"},
      {"a comment without end", "<!-- x"},
      {"an instruction", "<?x y?>"},
      {"an instruction without end", "<?x y"},
      {"a DOCTYPE inside", "<!DOCTYPE x>"},
      {"value that ends in a backslash", "<a b=\"c\\\"/>"},
      {"value without end", "<a b=\"c"},
      {"attribute without value", "<a b/>"},
      {"end tag of nobody", "</x>"},
      {"crossed tags", "<a><b></a></b>"},
      {"element called like a text", "<#text></#text>"},
      {"end of the document as a tag", "</#document>"},
      {"empty tag", "<></>"},
  };
  // Whatever begins may also be where everything ends.
  for (const char* begin : {"<", "</", "<!", "<!-", "<?", "<a", "<a ", "<a b", "<a b=", "<a b='",
                            "<![CDATA", "&", "&#", "&#x", "&#1", "&am", "\\"}) {
    contents.push_back({std::string("ends in ") + begin, std::string("x") + begin});
  }
  return contents;
}

std::vector<HostileXml> HugeContents() {
  std::string attributes = "<a";
  for (std::size_t i = 0; i < 100000 / kShare; ++i) attributes += " n" + std::to_string(i) + "='1'";
  const std::string name(3 * kMebibyte / kShare, 'n');
  return {
      {"200,000 nested elements",
       RepeatedText("<a>", 200000 / kShare) + RepeatedText("</a>", 200000 / kShare)},
      {"200,000 elements that never end", RepeatedText("<a>", 200000 / kShare)},
      {"a million siblings", RepeatedText("<a/>", 1000000 / kShare)},
      {"100,000 attributes of one element", attributes + "/>"},
      {"names of 3 MiB", "<" + name + "></" + name + ">"},
      {"a name of 6 MiB without end", "<" + name + name},
      {"a text of 7 MiB", std::string(7 * kMebibyte / kShare, 't')},
      {"a value of 7 MiB", "<a b='" + std::string(7 * kMebibyte / kShare, 'v') + "'/>"},
      {"a comment of 7 MiB", "<!--" + std::string(7 * kMebibyte / kShare, '-') + "-->"},
      {"a million references", RepeatedText("&#65;", 1000000 / kShare)},
      {"a million ampersands", RepeatedText("&", 1000000 / kShare)},
  };
}

std::vector<HostileXml> SpoiledDocuments(const std::string& good) {
  std::vector<HostileXml> documents = {
      {"nothing but blanks", std::string(1000, ' ')},
      {"no document", "This is no document."},
      {"an error page", "<html><body>" + good + "</body></html>"},
      {"entity bomb", WithProlog(Bomb(), good)},
      {"external entity",
       WithProlog("<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>", good)},
      {"external document type",
       WithProlog("<!DOCTYPE x SYSTEM \"http://10.77.0.2:9/x.dtd\">", good)},
      {"DOCTYPE with 1 MB of declarations",
       WithProlog("<!DOCTYPE x [" + RepeatedText("<!ELEMENT a (b,c)>", 58000) + "]>", good)},
      {"DOCTYPE without end", WithProlog("<!DOCTYPE x [" + std::string(100000, ' '), good)},
      {"UTF-16", InUtf16(good)},
      {"UTF-16 of the other order", "\xFE\xFF" + std::string(1, '\0') + InUtf16(good).substr(2)},
      {"NUL in front", std::string(1, '\0') + good},
  };
  for (std::size_t size = 1; size < good.size(); size += good.size() / 20 + 1) {
    documents.push_back({"cut at " + std::to_string(size), good.substr(0, size)});
  }
  return documents;
}

}  // namespace vex_test
