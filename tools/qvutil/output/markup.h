// Text in HTML and SVG.
#ifndef TOOLS_QVUTIL_OUTPUT_MARKUP_H_
#define TOOLS_QVUTIL_OUTPUT_MARKUP_H_

#include <string>
#include <string_view>

namespace quorvane::tool {

// Any bytes as text of a page or a picture, also in an attribute: as shown() shows them, and
// without the characters that have a meaning there or that XML forbids.
std::string markup_text(std::string_view bytes);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_MARKUP_H_
