#include "hierarchy/TreePicture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <unordered_map>

#include "hierarchy/Hierarchy.h"
#include "hierarchy/RgbImage.h"

namespace dhc {

namespace {

constexpr int kMargin = 16;
constexpr int kSlot = 64;  // width of one leaf's column: 10 characters of text
constexpr int kRow = 48;   // height of one split row
constexpr int kTitleHeight = 28;
constexpr int kMinHalf = 3, kMaxHalf = 14;

std::string gainText(double g) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "gain %.3g", g);
    return buffer;
}

}  // namespace

TreeLayout layoutTree(const Hierarchy& tree) {
    const std::vector<RegionNode>& nodes = tree.nodes();
    std::unordered_map<int, size_t> at;
    for (size_t i = 0; i < nodes.size(); ++i) at[nodes[i].label] = i;

    // The leaves' colours: ascending final label, as in the label map's PNG.
    std::set<int> present;
    for (const RegionNode& n : nodes)
        if (n.terminal && n.area > 0 && n.finalLabel != 0) present.insert(n.finalLabel);
    std::map<int, Rgb> colourOf;
    int k = 0;
    for (int label : present) colourOf[label] = labelColour(k++);

    // Leaves left to right in depth-first order, children in child order.
    std::vector<int> leafOrder;
    std::vector<int> stack{tree.root().label};
    while (!stack.empty()) {
        const RegionNode& n = nodes[at.at(stack.back())];
        stack.pop_back();
        if (n.children.empty()) leafOrder.push_back(n.label);
        for (auto c = n.children.rbegin(); c != n.children.rend(); ++c) stack.push_back(*c);
    }

    TreeLayout layout;
    const int splits = tree.splits();
    const int leaves = static_cast<int>(leafOrder.size());
    layout.title = "dhc tree: " + std::to_string(nodes.size()) +
                   (nodes.size() == 1 ? " region, " : " regions, ") + std::to_string(leaves) +
                   (leaves == 1 ? " class" : " classes") + ": #label, area, split gain";
    layout.width = std::max(2 * kMargin + leaves * kSlot, 2 * kMargin + RgbImage::textWidth(layout.title));
    const int left = (layout.width - leaves * kSlot) / 2;
    const int top = kMargin + kTitleHeight + kMaxHalf;
    const int leafY = top + splits * kRow;
    layout.height = leafY + kMaxHalf + 4 + 2 * RgbImage::kLineHeight + kMargin;

    const double rootArea = std::max(1, tree.root().area);
    std::unordered_map<int, size_t> placed;  // label -> index in layout.nodes
    auto place = [&](const RegionNode& n, int x, int y) {
        TreeLayout::Node p;
        p.label = n.label;
        p.x = x;
        p.y = y;
        p.half =
            kMinHalf + static_cast<int>(std::lround((kMaxHalf - kMinHalf) * std::sqrt(n.area / rootArea)));
        p.leaf = n.children.empty();
        if (p.leaf) {
            const auto colour = colourOf.find(n.finalLabel);
            p.fill = (n.area > 0 && colour != colourOf.end()) ? colour->second : kTreeInnerFill;
            p.text = {"#" + std::to_string(n.label), std::to_string(n.area)};
            p.textX = x - RgbImage::textWidth(p.text[0]) / 2;
            p.textY = y + kMaxHalf + 4;
        } else {
            p.fill = kTreeInnerFill;
            p.text = {"#" + std::to_string(n.label) + " " + std::to_string(n.area), gainText(n.splitGainTFR)};
            p.textX = x + p.half + 3;
            p.textY = y - p.half - 2 * RgbImage::kLineHeight;
        }
        placed[n.label] = layout.nodes.size();
        layout.nodes.push_back(p);
    };
    for (int i = 0; i < leaves; ++i) place(nodes[at.at(leafOrder[i])], left + i * kSlot + kSlot / 2, leafY);

    // Split regions from the last split up: each centred over its children.
    for (int r = splits; r >= 1; --r) {
        const RegionNode& n = nodes[at.at(tree.splitOrder()[r - 1])];
        const int firstX = layout.nodes[placed.at(n.children.front())].x;
        const int lastX = layout.nodes[placed.at(n.children.back())].x;
        const int y = top + (r - 1) * kRow;
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

RgbImage treePicture(const Hierarchy& tree) {
    const TreeLayout layout = layoutTree(tree);
    RgbImage picture(layout.width, layout.height, kTreeBackground);
    picture.text(kMargin, kMargin, layout.title, kTreeInk);
    for (const TreeLayout::Line& l : layout.lines) picture.fill(l.x0, l.y0, l.x1, l.y1, kTreeLine);
    for (const TreeLayout::Node& n : layout.nodes) {
        // Inner regions are outlined; leaves are one solid colour, nothing else in it.
        if (!n.leaf)
            picture.fill(n.x - n.half - 1, n.y - n.half - 1, n.x + n.half + 1, n.y + n.half + 1, kTreeInk);
        picture.fill(n.x - n.half, n.y - n.half, n.x + n.half, n.y + n.half, n.fill);
        for (size_t i = 0; i < n.text.size(); ++i)
            picture.text(n.textX, n.textY + static_cast<int>(i) * RgbImage::kLineHeight, n.text[i], kTreeInk);
    }
    return picture;
}

void writeTreePng(const Hierarchy& tree, const std::string& path) {
    treePicture(tree).writePng(path);
}

std::string treeSvg(const Hierarchy& tree) {
    const TreeLayout layout = layoutTree(tree);
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
            else
                out += ch;
        }
        return out;
    };
    auto text = [&](std::ostringstream& os, int x, int y, const std::string& s) {
        // y is the top of the line in the PNG; SVG places the baseline.
        os << "<text x=\"" << x << "\" y=\"" << y + 7 << "\">" << escaped(s) << "</text>\n";
    };
    std::ostringstream os;
    os << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
       << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << layout.width << "\" height=\""
       << layout.height << "\" viewBox=\"0 0 " << layout.width << " " << layout.height << "\">\n"
       << "<rect width=\"100%\" height=\"100%\" fill=\"" << colour(kTreeBackground) << "\"/>\n"
       << "<g font-family=\"monospace\" font-size=\"9\" fill=\"" << colour(kTreeInk) << "\">\n";
    text(os, kMargin, kMargin, layout.title);
    os << "</g>\n<g stroke=\"" << colour(kTreeLine) << "\" stroke-width=\"1\">\n";
    for (const TreeLayout::Line& l : layout.lines)
        os << "<line x1=\"" << l.x0 << "\" y1=\"" << l.y0 << "\" x2=\"" << l.x1 << "\" y2=\"" << l.y1
           << "\"/>\n";
    os << "</g>\n";
    for (const TreeLayout::Node& n : layout.nodes) {
        os << "<g class=\"" << (n.leaf ? "leaf" : "split") << "\" data-label=\"" << n.label << "\">\n";
        os << "<rect x=\"" << n.x - n.half << "\" y=\"" << n.y - n.half << "\" width=\"" << 2 * n.half + 1
           << "\" height=\"" << 2 * n.half + 1 << "\" fill=\"" << colour(n.fill) << "\"";
        if (!n.leaf) os << " stroke=\"" << colour(kTreeInk) << "\"";
        os << "/>\n<g font-family=\"monospace\" font-size=\"9\" fill=\"" << colour(kTreeInk) << "\">\n";
        for (size_t i = 0; i < n.text.size(); ++i)
            text(os, n.textX, n.textY + static_cast<int>(i) * RgbImage::kLineHeight, n.text[i]);
        os << "</g>\n</g>\n";
    }
    os << "</svg>\n";
    return os.str();
}

}  // namespace dhc
