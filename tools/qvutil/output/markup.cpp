#include "qvutil/output/markup.h"

#include <cstddef>

#include "qvutil/output/text.h"

namespace quorvane::tool {

std::string markup_text(std::string_view bytes) {
  std::string text;
  for (const char c : shown(bytes)) {
    switch (c) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '"':
        text += "&quot;";
        break;
      case '\'':
        text += "&#39;";
        break;
      default:
        text += c;
    }
  }
  for (const std::string_view forbidden : {"\xef\xbf\xbe", "\xef\xbf\xbf"}) {
    for (std::size_t at = 0; (at = text.find(forbidden, at)) != std::string::npos;) {
      text.replace(at, forbidden.size(), "?");
    }
  }
  return text;
}

}  // namespace quorvane::tool
