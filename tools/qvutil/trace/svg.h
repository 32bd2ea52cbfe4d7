// The picture of a timeline.
#ifndef TOOLS_QVUTIL_TRACE_SVG_H_
#define TOOLS_QVUTIL_TRACE_SVG_H_

#include <ostream>

#include "qvutil/trace/timeline.h"

namespace quorvane::tool {

// An SVG element, 1,000 px wide, that can also stand in a page: a lane for each thread, its spans
// as rectangles, an axis in ms, and a legend. Readable on a light and on a dark background.
void write_svg(std::ostream& out, const Picture& picture);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_TRACE_SVG_H_
