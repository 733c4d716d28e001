#include "hierarchy/TreePicture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <unordered_map>

#include "hierarchy/Hierarchy.h"
#include "hierarchy/RgbImage.h"
#include "hierarchy/SvgRender.h"

namespace dhc {

namespace {

constexpr int kMargin = 16;
constexpr int kSlot = 76;         // width of one leaf's column: "#label" and "999.9 km²" fit
constexpr int kTitleHeight = 30;  // the title and the space under it
constexpr int kAxisWidth = 78;    // axis title, tick labels, ticks
constexpr int kCutLabelWidth = 84;
constexpr int kMinHalf = 3, kMaxHalf = 14;
constexpr int kMinStep = 4;   // least drop from one split rank to the next
constexpr int kLeafGap = 30;  // at least, from the lowest split down to the leaves

std::string format(const char* pattern, double v) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, pattern, v);
    return buffer;
}

std::string gainText(double g) {
    return std::isfinite(g) ? format("%.3g", g) : "none";
}

// Three significant digits, never in exponent form.
std::string significant(double v) {
    if (v >= 100) return format("%.0f", v);
    if (v >= 10) return format("%.1f", v);
    if (v >= 1) return format("%.2f", v);
    return format("%.3g", v);
}

// Round steps of 1, 2 or 5 times a power of ten, about five across [lo, hi].
std::vector<double> linearTicks(double lo, double hi) {
    const double raw = (hi - lo) / 5;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    const double step = raw / power < 1.5 ? power : raw / power < 3.5 ? 2 * power : 5 * power;
    std::vector<double> ticks;
    for (double v = std::ceil(lo / step) * step; v <= hi + step * 1e-9; v += step)
        ticks.push_back(std::fabs(v) < step * 1e-9 ? 0.0 : v);
    return ticks;
}

std::string tickText(double v) {
    return format("%g", v);
}

}  // namespace

int treeTextWidth(const std::string& s) {
    // Characters, not bytes: a UTF-8 continuation byte adds nothing.
    int chars = 0;
    for (unsigned char c : s)
        if ((c & 0xC0) != 0x80) ++chars;
    return chars * 7;
}

std::string areaText(double pixels, double pixelArea) {
    if (pixelArea <= 0) return format("%.0f px", pixels);
    const double hectares = pixels * pixelArea / 1e4;
    if (hectares < 100) return significant(hectares) + " ha";
    return significant(hectares / 100) + " km\u00b2";
}

namespace {

// The fill colours of the picture's nodes.
struct NodeColours {
    std::map<int, Rgb> leaf;              // by final label
    std::unordered_map<int, Rgb> split;   // by region label
};

NodeColours nodeColours(const Hierarchy& tree, const std::unordered_map<int, size_t>& at) {
    const std::vector<RegionNode>& nodes = tree.nodes();
    NodeColours colours;
    // The leaves' colours: ascending final label, as in the final map's PNG.
    std::set<int> present;
    for (const RegionNode& n : nodes)
        if (n.terminal && n.area > 0 && n.finalLabel != 0) present.insert(n.finalLabel);
    int k = 0;
    for (int label : present) colours.leaf[label] = labelColour(k++);
    // A split region's colour: its rank among the labels of the last cut
    // holding it, the cut after (its split rank - 1) splits, as in that cut's map.
    std::set<int> cut{tree.root().label};
    for (int r = 1; r <= tree.splits(); ++r) {
        const RegionNode& n = nodes[at.at(tree.splitOrder()[r - 1])];
        colours.split[n.label] = labelColour(static_cast<int>(std::distance(cut.begin(), cut.find(n.label))));
        cut.erase(n.label);
        for (int c : n.children)
            if (nodes[at.at(c)].area > 0) cut.insert(c);
    }
    return colours;
}

// Leaves left to right in depth-first order, children in child order.
std::vector<int> leafOrderOf(const Hierarchy& tree, const std::unordered_map<int, size_t>& at) {
    const std::vector<RegionNode>& nodes = tree.nodes();
    std::vector<int> leafOrder;
    std::vector<int> stack{tree.root().label};
    while (!stack.empty()) {
        const RegionNode& n = nodes[at.at(stack.back())];
        stack.pop_back();
        if (n.children.empty()) leafOrder.push_back(n.label);
        for (auto c = n.children.rbegin(); c != n.children.rend(); ++c) stack.push_back(*c);
    }
    return leafOrder;
}

// One region drawn at (x, y): its disc, its text and its tooltip.
// A run that kept its splits by a model-selection criterion shows it, in nats
// per pixel of the region of interest, instead of the split gain.
TreeLayout::Node placeNode(const RegionNode& n, int x, int y, const NodeColours& colours, double rootArea,
                           double pixelArea, bool byCriterion) {
    TreeLayout::Node p;
    p.label = n.label;
    p.x = x;
    p.y = y;
    p.half = kMinHalf + static_cast<int>(std::lround((kMaxHalf - kMinHalf) * std::sqrt(n.area / rootArea)));
    p.leaf = n.children.empty();
    const std::string area = areaText(n.area, pixelArea);
    if (p.leaf) {
        const auto colour = colours.leaf.find(n.finalLabel);
        p.fill = (n.area > 0 && colour != colours.leaf.end()) ? colour->second : kTreeInnerFill;
        p.text = {"#" + std::to_string(n.label), area};
        p.textX = x;
        p.textY = y + kMaxHalf + 4 + kTreeFontSize;
    } else {
        p.fill = colours.split.count(n.label) ? colours.split.at(n.label) : kTreeInnerFill;
        const double score = byCriterion ? n.criterion / rootArea : n.splitGainTFR;
        p.text = {"#" + std::to_string(n.label) + "  " + area,
                  (byCriterion ? "criterion " : "gain ") + gainText(score)};
        p.textX = x + p.half + 4;
        p.textY = y - 3;
    }
    p.tooltip.push_back("#" + std::to_string(n.label) + (p.leaf ? " (class)" : "") + ": " + area +
                        (pixelArea > 0 ? " (" + std::to_string(n.area) + " px)" : ""));
    if (n.split) {
        p.tooltip.push_back("split rank " + std::to_string(n.splitRank) + ", gain " + gainText(n.splitGainTFR) +
                            " (MRF " + gainText(n.splitGainMRF) + ", mixture " + gainText(n.mixtureSplitGainTFR) +
                            ")" + (byCriterion ? ", criterion " + gainText(n.criterion) + " nats" : ""));
        p.tooltip.push_back("\u03b2 " + gainText(n.beta) + ", " + std::to_string(n.children.size()) + " children");
    }
    if (!n.mean.empty()) {
        std::string mean = "mean per band:";
        for (double v : n.mean) mean += " " + (std::isfinite(v) ? format("%.1f", v) : std::string("none"));
        p.tooltip.push_back(mean);
    }
    return p;
}

}  // namespace

TreeLayout layoutTree(const Hierarchy& tree, const TreeOptions& options) {
    const std::vector<RegionNode>& nodes = tree.nodes();
    std::unordered_map<int, size_t> at;
    for (size_t i = 0; i < nodes.size(); ++i) at[nodes[i].label] = i;
    const int splits = tree.splits();

    const NodeColours colours = nodeColours(tree, at);
    const std::vector<int> leafOrder = leafOrderOf(tree, at);
    const int leaves = static_cast<int>(leafOrder.size());

    // A run that kept its splits by a model-selection criterion (every split
    // has one) shows it, in nats per pixel of the region of interest: its
    // split gains, which may be negative, decided nothing.
    const double rootArea = std::max(1, tree.root().area);
    bool byCriterion = splits > 0;
    for (int r = 0; r < splits; ++r)
        if (!std::isfinite(nodes[at.at(tree.splitOrder()[r])].criterion)) byCriterion = false;

    TreeLayout layout;
    layout.title = "dhc tree: " + std::to_string(nodes.size()) +
                   (nodes.size() == 1 ? " region, " : " regions, ") + std::to_string(leaves) +
                   (leaves == 1 ? " class" : " classes") +
                   (byCriterion ? " (#label, area; split regions: criterion, nats per pixel)"
                                : " (#label, area; split regions: split gain)");
    const int left = kMargin + kAxisWidth;
    const int treeWidth = std::max(leaves * kSlot, 160);
    layout.cutLeft = left - 6;
    layout.cutRight = left + treeWidth + 6;
    layout.width =
        std::max(layout.cutRight + kCutLabelWidth + kMargin, 2 * kMargin + treeTextWidth(layout.title));
    const int top = kMargin + kTitleHeight + kMaxHalf;

    // Height of the split of rank r: the gain of that split and of every
    // later one, so the step from one split to the next is the gain of the
    // first, the leaves stand at 0, and a split ranked later is never higher.
    // Gains that are not positive (runs not driven by the gain) add nothing.
    std::vector<double> height(static_cast<size_t>(splits) + 1, 0.0);
    for (int r = splits - 1; r >= 0; --r) {
        const double g = nodes[at.at(tree.splitOrder()[r])].splitGainTFR;
        height[r] = height[r + 1] + (std::isfinite(g) && g > 0 ? g : 0.0);
    }
    std::vector<int> rowY(static_cast<size_t>(splits));
    int leafY = top;
    if (byCriterion) {
        // The criterion does not fall from split to split (the largest is
        // split first among the leaves of the moment, and one level deeper
        // may keep a split of negative figure): one row per split rank, room
        // for two lines of text, and no scale.
        for (int r = 0; r < splits; ++r) rowY[r] = top + r * (2 * kTreeLineHeight + 4);
        leafY = rowY.back() + kLeafGap;
    } else if (splits > 0) {
        const double total = height[0] > 0 ? height[0] : 1.0;
        const int plotHeight = std::clamp(30 * splits, 200, 560);
        auto yOf = [&](double h) { return top + static_cast<int>(std::lround((total - h) / total * plotHeight)); };
        for (int r = 0; r < splits; ++r) {
            rowY[r] = yOf(height[r]);
            // Splits of (nearly) no gain are still told apart.
            if (r > 0) rowY[r] = std::max(rowY[r], rowY[r - 1] + kMinStep);
        }
        leafY = std::max(yOf(0), rowY.back() + kLeafGap);
        layout.axisX = left - 14;
        layout.axisTop = top;
        layout.axisBottom = yOf(0);
        layout.axisTitle = "split gain still to come";
        for (double v : linearTicks(0, total)) {
            const int y = yOf(v);
            if (!layout.ticks.empty() && layout.ticks.back().y - y < kTreeLineHeight) continue;
            layout.ticks.push_back({v, y, tickText(v)});
        }
        std::reverse(layout.ticks.begin(), layout.ticks.end());
    }
    layout.height = leafY + kMaxHalf + 6 + 2 * kTreeLineHeight + kMargin;

    // One cut line between consecutive split heights; the first above the
    // root, the last between the lowest split and the leaves.
    for (int c = 0; c <= splits && splits > 0; ++c) {
        TreeLayout::Cut cut;
        cut.splits = c;
        cut.classes = tree.leavesAfter(c);
        if (c == 0)
            cut.y = rowY[0] - kMaxHalf - 4;
        else if (c == splits)
            cut.y = (rowY[c - 1] + leafY - kMaxHalf) / 2;
        else
            cut.y = (rowY[c - 1] + rowY[c]) / 2;
        layout.cuts.push_back(cut);
    }
    // Labels where there is room, the finest cut always.
    int lastLabel = std::numeric_limits<int>::max();
    for (auto c = layout.cuts.rbegin(); c != layout.cuts.rend(); ++c)
        if (c == layout.cuts.rbegin() || lastLabel - c->y >= kTreeLineHeight) {
            c->labelled = true;
            lastLabel = c->y;
        }

    const double pixelArea = options.pixelArea;
    std::unordered_map<int, size_t> placed;  // label -> index in layout.nodes
    auto place = [&](const RegionNode& n, int x, int y) {
        placed[n.label] = layout.nodes.size();
        layout.nodes.push_back(placeNode(n, x, y, colours, rootArea, pixelArea, byCriterion));
    };
    for (int i = 0; i < leaves; ++i) place(nodes[at.at(leafOrder[i])], left + i * kSlot + kSlot / 2, leafY);

    // Split regions from the last split up: each centred over its children.
    for (int r = splits; r >= 1; --r) {
        const RegionNode& n = nodes[at.at(tree.splitOrder()[r - 1])];
        const int firstX = layout.nodes[placed.at(n.children.front())].x;
        const int lastX = layout.nodes[placed.at(n.children.back())].x;
        const int y = rowY[r - 1];
        layout.lines.push_back({firstX, y, lastX, y});
        for (int c : n.children) {
            const TreeLayout::Node& child = layout.nodes[placed.at(c)];
            layout.lines.push_back({child.x, y, child.x, child.y});
        }
        place(n, (firstX + lastX) / 2, y);
    }
    // Splits by rank first, then the leaves left to right: the picture reads from the root down.
    std::reverse(layout.nodes.begin() + leaves, layout.nodes.end());
    std::rotate(layout.nodes.begin(), layout.nodes.begin() + leaves, layout.nodes.end());
    return layout;
}

std::string treeSvg(const Hierarchy& tree, const TreeOptions& options) {
    const TreeLayout layout = layoutTree(tree, options);
    auto colour = [](Rgb c) {
        return "rgb(" + std::to_string(c.r) + "," + std::to_string(c.g) + "," + std::to_string(c.b) + ")";
    };
    auto escaped = [](const std::string& s) {
        std::string out;
        for (char ch : s) {
            if (ch == '<')
                out += "&lt;";
            else if (ch == '>')
                out += "&gt;";
            else if (ch == '&')
                out += "&amp;";
            else if (ch == '"')
                out += "&quot;";
            else
                out += ch;
        }
        return out;
    };
    auto text = [&](std::ostringstream& os, int x, int y, const std::string& s, const char* extra = "") {
        os << "<text x=\"" << x << "\" y=\"" << y << "\"" << extra << ">" << escaped(s) << "</text>\n";
    };
    auto title = [&](std::ostringstream& os, const std::vector<std::string>& lines) {
        os << "<title>";
        for (size_t i = 0; i < lines.size(); ++i) os << (i ? "\n" : "") << escaped(lines[i]);
        os << "</title>\n";
    };
    std::ostringstream os;
    os << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
       << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"dhc-tree\" width=\"" << layout.width
       << "\" height=\"" << layout.height << "\" viewBox=\"0 0 " << layout.width << " " << layout.height
       << "\" font-family=\"DejaVu Sans, Verdana, Arial, sans-serif\" font-size=\"" << kTreeFontSize << "\">\n"
       << "<rect width=\"100%\" height=\"100%\" fill=\"" << colour(kTreeBackground) << "\"/>\n";
    text(os, kMargin, kMargin + kTreeFontSize + 2, layout.title, " font-size=\"13\" font-weight=\"bold\"");

    if (!layout.ticks.empty()) {
        os << "<g class=\"axis\" fill=\"" << colour(kTreeInk) << "\">\n";
        os << "<line x1=\"" << layout.axisX << "\" y1=\"" << layout.axisTop << "\" x2=\"" << layout.axisX
           << "\" y2=\"" << layout.axisBottom << "\" stroke=\"" << colour(kTreeInk) << "\"/>\n";
        const int titleX = kMargin + kTreeFontSize, titleY = (layout.axisTop + layout.axisBottom) / 2;
        os << "<text class=\"axis-title\" x=\"" << titleX << "\" y=\"" << titleY
           << "\" text-anchor=\"middle\" transform=\"rotate(-90 " << titleX << " " << titleY << ")\">"
           << escaped(layout.axisTitle) << "</text>\n";
        for (const TreeLayout::Tick& t : layout.ticks) {
            os << "<g class=\"tick\" data-value=\"" << t.text << "\">"
               << "<line x1=\"" << layout.axisX - 5 << "\" y1=\"" << t.y << "\" x2=\"" << layout.axisX
               << "\" y2=\"" << t.y << "\" stroke=\"" << colour(kTreeInk) << "\"/>";
            os << "<text x=\"" << layout.axisX - 8 << "\" y=\"" << t.y + 4 << "\" text-anchor=\"end\">"
               << escaped(t.text) << "</text></g>\n";
        }
        os << "</g>\n";
    }

    os << "<g class=\"cuts\" fill=\"" << colour(kTreeCut) << "\">\n";
    for (const TreeLayout::Cut& c : layout.cuts) {
        const std::string classes = std::to_string(c.classes) + (c.classes == 1 ? " class" : " classes");
        os << "<g class=\"cut\" data-splits=\"" << c.splits << "\" data-classes=\"" << c.classes << "\">";
        title(os, {"cut after " + std::to_string(c.splits) + (c.splits == 1 ? " split: " : " splits: ") +
                   classes + " (--cut " + std::to_string(c.classes) + ")"});
        os << "<line x1=\"" << layout.cutLeft << "\" y1=\"" << c.y << "\" x2=\"" << layout.cutRight
           << "\" y2=\"" << c.y << "\" stroke=\"" << colour(kTreeCut)
           << "\" stroke-width=\"1\" stroke-dasharray=\"5 3\"/>";
        // A wide transparent band makes the line easy to point at.
        os << "<line x1=\"" << layout.cutLeft << "\" y1=\"" << c.y << "\" x2=\"" << layout.cutRight
           << "\" y2=\"" << c.y << "\" stroke=\"transparent\" stroke-width=\"7\"/>";
        if (c.labelled) os << "<text x=\"" << layout.cutRight + 4 << "\" y=\"" << c.y + 4 << "\">" << classes << "</text>";
        os << "</g>\n";
    }
    os << "</g>\n";

    os << "<g class=\"edges\" stroke=\"" << colour(kTreeLine) << "\" stroke-width=\"1.5\">\n";
    for (const TreeLayout::Line& l : layout.lines)
        os << "<line x1=\"" << l.x0 << "\" y1=\"" << l.y0 << "\" x2=\"" << l.x1 << "\" y2=\"" << l.y1
           << "\"/>\n";
    os << "</g>\n";
    for (const TreeLayout::Node& n : layout.nodes) {
        os << "<g class=\"node " << (n.leaf ? "leaf" : "split") << "\" data-label=\"" << n.label << "\">\n";
        title(os, n.tooltip);
        os << "<rect x=\"" << n.x - n.half << "\" y=\"" << n.y - n.half << "\" width=\"" << 2 * n.half + 1
           << "\" height=\"" << 2 * n.half + 1 << "\" fill=\"" << colour(n.fill) << "\" stroke=\""
           << colour(kTreeInk) << "\"/>\n";
        // A white halo keeps the text readable where lines pass behind it.
        os << "<g fill=\"" << colour(kTreeInk)
           << "\" stroke=\"white\" stroke-width=\"3\" stroke-linejoin=\"round\" paint-order=\"stroke\""
           << (n.leaf ? " text-anchor=\"middle\"" : "") << ">\n";
        for (size_t i = 0; i < n.text.size(); ++i)
            text(os, n.textX, n.textY + static_cast<int>(i) * kTreeLineHeight, n.text[i]);
        os << "</g>\n</g>\n";
    }
    os << "</svg>\n";
    return os.str();
}

RgbImage treePicture(const Hierarchy& tree, const TreeOptions& options) {
    return renderSvg(treeSvg(tree, options));
}

void writeTreePng(const Hierarchy& tree, const std::string& path, const TreeOptions& options) {
    treePicture(tree, options).writePng(path);
}

}  // namespace dhc
