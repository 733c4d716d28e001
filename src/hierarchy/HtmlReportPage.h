#pragma once
// The fixed parts of the HTML report: style, page skeleton and script.  The
// script reads the run from the page's own data (JSON, two inline PNGs and
// the tree's SVG) and needs nothing else.

namespace dhc {

extern const char* const kReportStyle;
extern const char* const kReportBody;
extern const char* const kReportScript;

}  // namespace dhc
