#pragma once
// The tree of regions as a picture: a dendrogram with the root at the top.
// Every split region sits on the row of its split rank (the first split on
// the first row), every leaf on the bottom row, so reading down the picture
// replays the cuts of --levels.  Markers are sized by area; leaves are filled
// with the colour their class has in the label map's PNG; every region is
// annotated with its label and area, every split region with its split gain.
// Leaves get equal slots, wide enough for their text, so up to 64 leaves stay
// readable.  The same layout is drawn as PNG (built-in bitmap font) or SVG.

#include <string>
#include <vector>

#include "hierarchy/LabelColours.h"
#include "hierarchy/RgbImage.h"

namespace dhc {

class Hierarchy;

// Where everything of the picture goes, in pixels.
struct TreeLayout {
    struct Node {
        int label = 0;
        int x = 0, y = 0;  // centre of the marker
        int half = 0;      // half the side of the square marker
        bool leaf = false;
        Rgb fill{255, 255, 255};
        std::vector<std::string> text;  // annotation lines
        int textX = 0, textY = 0;       // top-left of the first line
    };
    struct Line {
        int x0, y0, x1, y1;  // horizontal or vertical
    };
    int width = 0, height = 0;
    std::string title;
    std::vector<Node> nodes;
    std::vector<Line> lines;
};

// Colours of the picture other than the leaves'; none of them is a label colour.
constexpr Rgb kTreeBackground{255, 255, 255};
constexpr Rgb kTreeInk{0, 0, 0};
constexpr Rgb kTreeLine{90, 90, 90};
constexpr Rgb kTreeInnerFill{235, 235, 235};

TreeLayout layoutTree(const Hierarchy& tree);

// The dendrogram as a picture, and written as a PNG file (a WriteError names
// the file on failure).
RgbImage treePicture(const Hierarchy& tree);
void writeTreePng(const Hierarchy& tree, const std::string& path);
// The SVG document.
std::string treeSvg(const Hierarchy& tree);

}  // namespace dhc
