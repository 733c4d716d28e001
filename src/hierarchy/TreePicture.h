#pragma once
// The tree of regions as a picture: a dendrogram with the root at the top.
//
// The vertical axis is a labelled scale of split gain (SplitGain_TFR): a
// split region stands at the gain of its split plus the gains of every
// split ranked after it, the leaves at 0.  A split ranked later is never
// higher (and is drawn at least a few pixels lower), and the step from a
// split down to the next one is the first one's gain: the splits that gain
// much stand out as tall steps, those that gain little crowd at the bottom.
// The horizontal line between the splits of rank k and k + 1 separates the
// regions of the cut after k splits; every such line is drawn and, where
// there is room, labelled "K classes".  The leaves sit on one row at 0, in
// equal slots.
//
// Every region is filled with the colour it has in the label map where it
// is a class: the leaves with their colour in the final map's PNG, a split
// region with its colour in the map of the last cut that holds it (the
// `--cut` map just before its split).  Regions are annotated with #label
// and area, in hectares or km² when the pixel area is known; split regions
// with their gain.  The SVG carries a tooltip per region (label, area,
// gain, beta, mean per band) and per cut; the PNG is the SVG rendered with
// anti-aliased text.

#include <string>
#include <vector>

#include "hierarchy/LabelColours.h"
#include "hierarchy/RgbImage.h"

namespace dhc {

class Hierarchy;

struct TreeOptions {
    // Ground area of one pixel in square metres (a georeferenced image in a
    // projected system); 0 when unknown, and areas are given in pixels.
    double pixelArea = 0;
};

// Where everything of the picture goes, in pixels.
struct TreeLayout {
    struct Node {
        int label = 0;
        int x = 0, y = 0;  // centre of the marker
        int half = 0;      // half the side of the square marker
        bool leaf = false;
        Rgb fill{255, 255, 255};
        std::vector<std::string> text;  // annotation lines
        int textX = 0, textY = 0;       // first line: the left end (leaves: the centre) of its baseline
        std::vector<std::string> tooltip;
    };
    struct Line {
        int x0, y0, x1, y1;  // horizontal or vertical
    };
    // The horizontal line of the cut after `splits` splits.
    struct Cut {
        int splits = 0, classes = 0;
        int y = 0;
        bool labelled = false;  // room for its "K classes" label
    };
    struct Tick {
        double value = 0;
        int y = 0;
        std::string text;
    };
    int width = 0, height = 0;
    std::string title;
    std::vector<Node> nodes;  // split regions by rank, then the leaves left to right
    std::vector<Line> lines;
    std::vector<Cut> cuts;  // by number of splits, 0 to splits()
    int cutLeft = 0, cutRight = 0;
    // The gain axis (absent when nothing was split).
    int axisX = 0, axisTop = 0, axisBottom = 0;
    std::vector<Tick> ticks;  // top to bottom
    std::string axisTitle;
};

// Sizes of the picture's text: font size and line height in pixels.
constexpr int kTreeFontSize = 11;
constexpr int kTreeLineHeight = 13;
// A generous estimate of the width of text in the picture's font.
int treeTextWidth(const std::string& s);

// Colours of the picture other than the regions'.
constexpr Rgb kTreeBackground{255, 255, 255};
constexpr Rgb kTreeInk{0, 0, 0};
constexpr Rgb kTreeLine{90, 90, 90};
constexpr Rgb kTreeCut{70, 110, 190};
constexpr Rgb kTreeInnerFill{235, 235, 235};

// "812 px", or "81.2 ha" / "99.8 km²" when the pixel area is known.
std::string areaText(double pixels, double pixelArea);

TreeLayout layoutTree(const Hierarchy& tree, const TreeOptions& options = {});

// The SVG document.
std::string treeSvg(const Hierarchy& tree, const TreeOptions& options = {});
// The SVG rendered (anti-aliased), and written as a PNG file (a WriteError
// names the file on failure).
RgbImage treePicture(const Hierarchy& tree, const TreeOptions& options = {});
void writeTreePng(const Hierarchy& tree, const std::string& path, const TreeOptions& options = {});

}  // namespace dhc
