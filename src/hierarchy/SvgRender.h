#pragma once
// SVG documents drawn into pixels (librsvg and cairo): anti-aliased shapes
// and text in the system's fonts, on an opaque white background.

#include <string>

#include "hierarchy/RgbImage.h"

namespace dhc {

// The document at its own width and height; a WriteError says why a
// document cannot be drawn.
RgbImage renderSvg(const std::string& svg);

}  // namespace dhc
