// Reading XML documents that come from outside the service (a server's file list, command
// files, the recorder's configuration). TinyXML parses elements recursively and holds the
// whole document in memory, so every document is bounded before it is parsed: a deep or huge
// document is refused with a reason instead of exhausting the stack or the memory.
#pragma once

#include <tinyxml.h>

// TinyXML's classes have another layout with TIXML_USE_STL than without: code compiled against
// one header and linked with the other library crashes. The build says which library it links.
#if defined(VELMAR_TINYXML_STL) && VELMAR_TINYXML_STL != defined(TIXML_USE_STL)
#error "tinyxml.h found is not the header of the TinyXML library linked"
#endif

#include <cstddef>
#include <string>

constexpr size_t kXmlMaxBytes = 1024 * 1024;  // 1 MiB: some 7,000 file-list entries
constexpr int kXmlMaxDepth = 32;              // nesting of elements; our documents use 3

// Loads the regular file at path (at most maxBytes) into doc when its elements nest at most
// kXmlMaxDepth deep and it parses. False otherwise, with *why saying what was wrong.
bool LoadXmlFile(const char* path, TiXmlDocument* doc, std::string* why,
                 size_t maxBytes = kXmlMaxBytes);

// Parses text (already read, e.g. bytes whose signature was checked) under the same bounds
// as LoadXmlFile. False with *why.
bool ParseXmlText(const std::string& text, TiXmlDocument* doc, std::string* why);

// The deepest nesting of elements in text, counted as a parser sees them (comments, CDATA,
// declarations and quoted attribute values do not count); stops counting above limit.
int XmlNestingDepth(const std::string& text, int limit);
