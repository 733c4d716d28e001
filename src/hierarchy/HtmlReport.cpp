#include "hierarchy/HtmlReport.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "hierarchy/Hierarchy.h"
#include "hierarchy/HtmlReportPage.h"
#include "hierarchy/TreePicture.h"

namespace dhc {

namespace {

using json = nlohmann::ordered_json;

json number(double v) {
    return std::isfinite(v) ? json(v) : json(nullptr);
}

// Text safe inside a <script> element and in HTML text.
std::string scriptSafe(std::string s) {
    for (size_t at = s.find("</"); at != std::string::npos; at = s.find("</", at + 3)) s.replace(at, 2, "<\\/");
    return s;
}

std::string htmlEscaped(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace

int reportStep(int rows, int cols) {
    const int side = std::max(rows, cols);
    return std::max(1, (side + kReportSide - 1) / kReportSide);
}

std::array<int, 3> defaultRgbBands(int bands) {
    if (bands >= 4) return {3, 2, 1};
    if (bands == 3) return {2, 1, 0};
    return {0, 0, 0};
}

RgbImage falseColour(const ImageView& image, const std::array<int, 3>& rgb) {
    const int step = reportStep(image.rows, image.cols);
    const int height = (image.rows + step - 1) / step, width = (image.cols + step - 1) / step;
    const size_t cells = static_cast<size_t>(width) * height;
    std::vector<double> mean(3 * cells, 0.0);
    std::vector<uint8_t> has(cells, 0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t cell = static_cast<size_t>(y) * width + x;
            double sum[3] = {0, 0, 0};
            int n = 0;
            for (int r = y * step; r < std::min(image.rows, (y + 1) * step); ++r)
                for (int c = x * step; c < std::min(image.cols, (x + 1) * step); ++c) {
                    if (image.valid != nullptr && !image.valid->empty() &&
                        !(*image.valid)[static_cast<size_t>(r) * image.cols + c])
                        continue;
                    for (int k = 0; k < 3; ++k) sum[k] += image.value(rgb[k], r, c);
                    ++n;
                }
            if (n == 0) continue;
            has[cell] = 1;
            for (int k = 0; k < 3; ++k) mean[3 * cell + k] = sum[k] / n;
        }
    double low[3] = {0, 0, 0}, high[3] = {1, 1, 1};
    for (int k = 0; k < 3; ++k) {
        std::vector<double> values;
        values.reserve(cells);
        for (size_t i = 0; i < cells; ++i)
            if (has[i]) values.push_back(mean[3 * i + k]);
        if (values.empty()) continue;
        auto quantile = [&values](double q) {
            auto at = values.begin() + static_cast<std::ptrdiff_t>(q * (values.size() - 1));
            std::nth_element(values.begin(), at, values.end());
            return *at;
        };
        low[k] = quantile(0.02);
        high[k] = quantile(0.98);
        if (high[k] <= low[k]) high[k] = low[k] + 1;
    }
    RgbImage out(width, height, Rgb{0, 0, 0});
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t cell = static_cast<size_t>(y) * width + x;
            if (!has[cell]) continue;
            uint8_t v[3];
            for (int k = 0; k < 3; ++k) {
                const double t = (mean[3 * cell + k] - low[k]) / (high[k] - low[k]);
                v[k] = static_cast<uint8_t>(std::lround(255 * std::clamp(t, 0.0, 1.0)));
            }
            out.set(x, y, Rgb{v[0], v[1], v[2]});
        }
    return out;
}

std::string base64(const std::string& bytes) {
    static const char* kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
        for (int s = 18; s >= 0; s -= 6) out += kDigits[(v >> s) & 63];
    }
    if (i < bytes.size()) {
        uint32_t v = uint8_t(bytes[i]) << 16;
        if (i + 1 < bytes.size()) v |= uint8_t(bytes[i + 1]) << 8;
        out += kDigits[(v >> 18) & 63];
        out += kDigits[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? kDigits[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string htmlReport(const Hierarchy& tree, const RgbImage& picture, const ReportRun& run) {
    const int rows = tree.rows(), cols = tree.cols();
    const int step = reportStep(rows, cols);
    const int height = (rows + step - 1) / step, width = (cols + step - 1) / step;
    if (picture.width() != width || picture.height() != height)
        throw WriteError("the report's picture is " + std::to_string(picture.width()) + " x " +
                         std::to_string(picture.height()) + " but the image needs " + std::to_string(width) +
                         " x " + std::to_string(height));

    // The final leaves, numbered from 1 (0: outside the region of interest),
    // per picture pixel: the pixel at the middle of its block.  The page
    // turns them into any cut.
    std::vector<int> leaves;
    std::unordered_map<int, int> leafIndex;
    for (const RegionNode& n : tree.nodes())
        if (n.children.empty()) {
            leaves.push_back(n.label);
            leafIndex[n.label] = static_cast<int>(leaves.size());
        }
    const std::vector<int> finest = tree.cut(tree.splits());
    RgbImage leafMap(width, height, Rgb{0, 0, 0});
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int r = std::min(rows - 1, y * step + step / 2), c = std::min(cols - 1, x * step + step / 2);
            const int label = finest[static_cast<size_t>(r) * cols + c];
            const int index = label == 0 ? 0 : leafIndex.at(label);
            leafMap.set(x, y, Rgb{static_cast<uint8_t>(index & 255), static_cast<uint8_t>((index >> 8) & 255),
                                  static_cast<uint8_t>((index >> 16) & 255)});
        }

    json data;
    data["title"] = run.title;
    data["program"] = {{"name", run.program}, {"version", run.version}};
    data["rows"] = rows;
    data["cols"] = cols;
    data["step"] = step;
    data["bands"] = run.bands;
    data["rgb"] = {run.rgb[0] + 1, run.rgb[1] + 1, run.rgb[2] + 1};
    data["pixelArea"] = run.pixelArea;
    data["root"] = tree.root().label;
    data["splitOrder"] = tree.splitOrder();
    json classes = json::array();
    for (int k = 0; k <= tree.splits(); ++k) classes.push_back(tree.leavesAfter(k));
    data["cutClasses"] = classes;
    json nodes = json::array();
    for (const RegionNode& n : tree.nodes()) {
        json m;
        m["label"] = n.label;
        m["parent"] = n.parent < 0 ? json(nullptr) : json(n.parent);
        m["children"] = n.children;
        m["depth"] = n.depth;
        m["area"] = n.area;
        m["splitRank"] = n.splitRank;
        m["terminal"] = n.terminal;
        m["finalLabel"] = n.finalLabel;
        m["gain"] = n.split ? number(n.splitGainTFR) : json(nullptr);
        m["gainMRF"] = n.split ? number(n.splitGainMRF) : json(nullptr);
        m["beta"] = n.split ? number(n.beta) : json(nullptr);
        json mean = json::array();
        for (double v : n.mean) mean.push_back(number(v));
        m["mean"] = mean;
        nodes.push_back(m);
    }
    data["nodes"] = nodes;
    data["leaves"] = leaves;
    json palette = json::array();
    for (size_t k = 0; k < tree.nodes().size(); ++k) {
        const Rgb c = labelColour(static_cast<int>(k));
        palette.push_back({c.r, c.g, c.b});
    }
    data["palette"] = palette;
    data["settings"] = run.settings;
    data["stoppingReason"] = run.stoppingReason.empty() ? json(nullptr) : json(run.stoppingReason);
    json timings = json::array();
    for (const auto& [name, seconds] : run.timings) timings.push_back({name, number(seconds)});
    data["timings"] = timings;

    TreeOptions options;
    options.pixelArea = run.pixelArea;
    std::string svg = treeSvg(tree, options);
    svg.erase(0, svg.find("<svg"));

    std::string page;
    page.reserve(4 * 1024 * 1024);
    page += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    // No request of any kind: every picture is inline data, the script and style are in the page.
    page +=
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
        "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n";
    page += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
    page += "<title>" + htmlEscaped(run.title.empty() ? "dhc report" : "dhc: " + run.title) + "</title>\n";
    page += "<style>\n";
    page += kReportStyle;
    page += "</style>\n</head>\n<body>\n";
    page += kReportBody;
    page += "<img id=\"picture-data\" hidden alt=\"\" src=\"data:image/png;base64," + base64(picture.pngBytes()) +
            "\">\n";
    page += "<img id=\"leaf-data\" hidden alt=\"\" src=\"data:image/png;base64," + base64(leafMap.pngBytes()) +
            "\">\n";
    page += "<template id=\"tree-svg\">\n" + svg + "</template>\n";
    page += "<script type=\"application/json\" id=\"run-data\">\n" + scriptSafe(data.dump()) + "\n</script>\n";
    page += "<script>\n";
    page += kReportScript;
    page += "</script>\n</body>\n</html>\n";
    return page;
}

}  // namespace dhc
