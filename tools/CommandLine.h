#pragma once
// The command line of the `dhc` program: commands, options, usage texts.

#include <string>
#include <vector>

// Options of `dhc segment`.
struct SegmentOptions {
    std::string image;              // IMAGE (operand): hraw or a GDAL raster
    std::string output;             // -o, --output: label map
    std::string config;             // --config: ini file (default: the built-in default.ini)
    std::string mask;               // --mask: pixels with value 1 form the region of interest
    std::string init;               // --init: initial segmentation
    std::string gt;                 // --gt: ground truth (supervised mode)
    std::string report;             // --report: text report
    std::string fragments;          // --fragments: fragment map
    std::string png;                // --png: picture of the label map
    std::string levels;             // --levels: every cut of the tree, one band per cut
    std::string tree;               // --tree: the tree as JSON
    std::string treePng;            // --tree-png: picture of the tree
    std::string treeSvg;            // --tree-svg: picture of the tree, vector form
    std::string html;               // --html: the run as a self-contained HTML page
    std::string rgb;                // --rgb: bands of the page's picture, "3,2,1" (empty: a default)
    int cut = 0;                    // --cut: classes of the cut written instead of the final map (0: final)
    std::vector<std::string> sets;  // --set SECTION.Key=value, in order
    std::string format;             // --format: GDAL driver of the label and fragment maps
    bool hasScale = false;          // --scale: factor of floating-point image bands
    double scale = 1;
    bool hasNodata = false;  // --nodata: nodata value of every image band
    double nodata = 0;
    int threads = 0;     // --threads: threads of the run (0: one per core)
    bool quiet = false;  // -q, --quiet: no progress lines
    bool help = false;   // -h, --help
};

// Options of `dhc info`.
struct InfoOptions {
    std::vector<std::string> files;
    bool help = false;
};

// Parse the arguments that follow the command word; throw a InputError
// (kExitUsage) for an unknown option, a missing value or a missing operand.
SegmentOptions parseSegment(const std::vector<std::string>& args);
InfoOptions parseInfo(const std::vector<std::string>& args);

extern const char* const kUsage;         // dhc --help
extern const char* const kSegmentUsage;  // dhc segment --help
extern const char* const kInfoUsage;     // dhc info --help
