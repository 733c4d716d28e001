#pragma once
// A run as one self-contained HTML page to choose a scale by looking: a
// false-colour picture of the image with the label map of any cut over it
// (a slider over the cuts, another over the map's opacity), the tree of
// regions beside it (a click highlights a region's pixels; pointing at a
// region shows its statistics and mean spectrum), the settings, why the run
// stopped and its timings.
//
// Everything is inline (pictures as PNG data, script, style) and the page
// forbids itself any request, so it opens from a local file with no network.
// Pictures are at most kReportSide pixels on their longer side: a 4096 x 4096
// scene is shown one pixel in four each way, which keeps the page a few MB.

#include <array>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "hierarchy/RgbImage.h"

namespace dhc {

class Hierarchy;

constexpr int kReportSide = 1024;

// Pixels of the image per picture pixel along each axis (1 up to kReportSide).
int reportStep(int rows, int cols);

// The image as the picture reads it: value(band, row, col), and which pixels
// hold data (row-major; empty: all of them).
struct ImageView {
    int bands = 0, rows = 0, cols = 0;
    std::function<int(int band, int row, int col)> value;
    const std::vector<uint8_t>* valid = nullptr;
};

// The bands (0-based) shown as red, green and blue by default: the near
// infrared, red and green of a band order by wavelength (4, 3, 2) from four
// bands on, 3, 2, 1 with three, grey from the first band below that.
std::array<int, 3> defaultRgbBands(int bands);

// The false-colour picture at reportStep's scale: each picture pixel the
// mean of its block of image pixels per band, each band stretched linearly
// from its 2nd to its 98th percentile; pixels without data are black.
RgbImage falseColour(const ImageView& image, const std::array<int, 3>& rgb);

// What the page says about the run besides the tree.
struct ReportRun {
    std::string title;  // e.g. the image's file name
    std::string program, version;
    nlohmann::ordered_json settings = nlohmann::ordered_json::object();
    std::array<int, 3> rgb{0, 0, 0};  // bands of the picture, 0-based
    int bands = 0;
    double pixelArea = 0;  // square metres per pixel; 0 when unknown
    // Why the run stopped, in a sentence; empty when the run does not say.
    std::string stoppingReason;
    // Seconds per step, in order ("reading the inputs", "segmentation", ...).
    std::vector<std::pair<std::string, double>> timings;
};

// The page.  `picture` is falseColour() of the image the tree was grown on.
std::string htmlReport(const Hierarchy& tree, const RgbImage& picture, const ReportRun& run);

// Standard base64 of bytes (for data URIs).
std::string base64(const std::string& bytes);

}  // namespace dhc
