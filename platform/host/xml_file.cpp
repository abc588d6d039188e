#include "platform/xml_file.h"

#include <cstring>

#include "platform/fileutil.h"

namespace {

// Position just past the first occurrence of end at or after from; npos when there is none.
size_t After(const std::string& text, size_t from, const char* end) {
  size_t at = text.find(end, from);
  return at == std::string::npos ? at : at + strlen(end);
}

// Position just past the '>' that closes the tag opened at from, skipping quoted values.
size_t TagEnd(const std::string& text, size_t from) {
  char quote = 0;
  for (size_t i = from; i < text.size(); ++i) {
    char c = text[i];
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return i + 1;
    }
  }
  return std::string::npos;
}

}  // namespace

int XmlNestingDepth(const std::string& text, int limit) {
  int depth = 0, deepest = 0;
  size_t i = 0;
  while (i < text.size() && deepest <= limit) {
    size_t lt = text.find('<', i);
    if (lt == std::string::npos) break;
    if (text.compare(lt, 4, "<!--") == 0) {
      i = After(text, lt + 4, "-->");
    } else if (text.compare(lt, 9, "<![CDATA[") == 0) {
      i = After(text, lt + 9, "]]>");
    } else if (text.compare(lt, 2, "<?") == 0 || text.compare(lt, 2, "<!") == 0) {
      i = After(text, lt + 2, ">");
    } else if (text.compare(lt, 2, "</") == 0) {
      if (depth > 0) --depth;
      i = After(text, lt + 2, ">");
    } else {
      i = TagEnd(text, lt + 1);
      bool empty = i != std::string::npos && i >= 2 && text[i - 2] == '/';
      if (!empty && ++depth > deepest) deepest = depth;
    }
    if (i == std::string::npos) break;
  }
  return deepest;
}

bool LoadXmlFile(const char* path, TiXmlDocument* doc, std::string* why, size_t maxBytes) {
  std::string text;
  if (!ReadRegularFile(path, maxBytes, &text, why)) return false;
  return ParseXmlText(text, doc, why);
}

bool ParseXmlText(const std::string& text, TiXmlDocument* doc, std::string* why) {
  if (text.size() > kXmlMaxBytes) {
    *why = "larger than " + std::to_string(kXmlMaxBytes) + " bytes";
    return false;
  }
  if (XmlNestingDepth(text, kXmlMaxDepth) > kXmlMaxDepth) {
    *why = "elements nested more than " + std::to_string(kXmlMaxDepth) + " deep";
    return false;
  }
  // Line ends as TinyXML's own file loader normalizes them: CR LF and a lone CR become LF.
  std::string lf;
  lf.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      lf += text[i];
    } else if (i + 1 >= text.size() || text[i + 1] != '\n') {
      lf += '\n';
    }
  }
  doc->Parse(lf.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
  if (doc->Error() || doc->RootElement() == nullptr) {
    *why = doc->Error() ? doc->ErrorDesc() : "no root element";
    return false;
  }
  return true;
}
