#include "Segment.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "DefaultIni.h"
#include "Inputs.h"
#include "LabelPng.h"
#include "OutputFiles.h"
#include "data/ImageFile.h"
#include "driver/DHC.h"
#include "driver/DHC_OUT.h"
#include "driver/FinishedRun.h"
#include "frontend/IniFile.h"
#include "base/InputError.h"
#include "frontend/InputFile.h"
#include "frontend/Segmentation.h"
#include "frontend/SettingsCheck.h"
#include "hierarchy/Hierarchy.h"
#include "hierarchy/HtmlReport.h"
#include "hierarchy/RgbImage.h"
#include "hierarchy/TreeJson.h"
#include "hierarchy/TreePicture.h"
#include "io/PolygonOutput.h"
#include "io/Raster.h"
#include "io/RasterOutput.h"
#include "model/ModelFromRun.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"

namespace {

// Bands of the trial write of --levels, whose number of cuts is known only
// after the run: enough that a driver of a few bands (PNG: 4) is refused.
constexpr int kProbeBands = 16;

// A file read as hraw (header already checked) into the form GDAL inputs take.
dhc::io::Raster readHraw(const std::string& path) {
    dhc::io::Raster r;
    r.cube = ImageFile<int>::readHRawInt32(path, r.bands, r.rows, r.cols);
    r.driver = "hraw";
    return r;
}

// --nodata on an hraw image: the pixels equal to value in any band.
void markNodata(dhc::io::Raster& image, double value, const std::string& path) {
    const size_t cols = static_cast<size_t>(image.cols);
    image.valid.assign(static_cast<size_t>(image.rows) * cols, 1);
    for (int b = 0; b < image.bands; ++b)
        for (int r = 0; r < image.rows; ++r)
            for (int c = 0; c < image.cols; ++c)
                if (image.cube[b][r][c] == value)
                    image.valid[static_cast<size_t>(r) * cols + static_cast<size_t>(c)] = 0;
    if (std::find(image.valid.begin(), image.valid.end(), 1) == image.valid.end())
        throw InputError(kExitInput, "image \"" + path + "\" holds only nodata pixels");
    if (std::find(image.valid.begin(), image.valid.end(), 0) == image.valid.end()) image.valid.clear();
}

// Why no cut has `wanted` classes: "the cuts have 1, 3 and 5 classes".
std::string noCut(const dhc::Hierarchy& h, int wanted) {
    std::string text = "--cut " + std::to_string(wanted) + ": no cut of the tree has " +
                       std::to_string(wanted) + " classes (";
    if (h.splits() == 0) return text + "nothing was split: the only cut has 1 class)";
    text += "the cuts have ";
    for (int k = 0; k <= h.splits(); ++k) {
        if (k > 0) text += k == h.splits() ? " and " : ", ";
        text += std::to_string(h.leavesAfter(k));
    }
    return text + " classes)";
}

// Every cut of the tree, one band per cut, computed a block at a time.
class LevelBands : public dhc::io::LabelBands {
  public:
    explicit LevelBands(const dhc::Hierarchy& tree) : tree_(tree) {
        for (const dhc::RegionNode& n : tree.nodes()) max_ = std::max(max_, n.label);
        classes_.push_back(1);
        for (int k = 0; k < tree.splits(); ++k)
            classes_.push_back(classes_.back() + static_cast<int>(tree.node(tree.splitOrder()[k]).children.size()) - 1);
    }
    int count() const override { return tree_.splits() + 1; }
    int rows() const override { return tree_.rows(); }
    int cols() const override { return tree_.cols(); }
    int maxLabel() const override { return max_; }
    void read(int b, int row, int n, int* out) const override { tree_.cutRows(b, row, n, out); }
    std::string description(int b) const override {
        return "cut after " + std::to_string(b) + (b == 1 ? " split, " : " splits, ") +
               std::to_string(classes_[static_cast<size_t>(b)]) + (classes_[static_cast<size_t>(b)] == 1 ? " class" : " classes");
    }

  private:
    const dhc::Hierarchy& tree_;
    int max_ = 0;
    std::vector<int> classes_;
};

// Writes maps as hraw (the header, then band after band, one band in memory
// at a time) or through GDAL, which writes to the temporary file by its name.
void writeOutput(const OutputFiles::Output& out, const dhc::io::OutputFormat& format,
                 const dhc::io::LabelBands& bands, const dhc::io::MapInfo& info) {
    if (!format.hraw()) {
        dhc::io::writeLabels(out.path, out.target, format, bands, info);
        return;
    }
    static_assert(sizeof(int) == sizeof(int32_t), "hraw values are int32");
    const int32_t header[3] = {bands.count(), bands.rows(), bands.cols()};
    OutputFiles::writeAll(out, header, sizeof header);
    std::vector<int> plane(static_cast<size_t>(bands.rows()) * static_cast<size_t>(bands.cols()));
    for (int b = 0; b < bands.count(); ++b) {
        bands.read(b, 0, bands.rows(), plane.data());
        OutputFiles::writeAll(out, plane.data(), plane.size() * sizeof(int32_t));
    }
}

}  // namespace

void writeLabels(const OutputFiles::Output& out, const dhc::io::OutputFormat& format, const std::vector<int>& plane,
                 int rows, int cols, const dhc::io::Georeference& geo) {
    dhc::io::MapInfo info;
    info.geo = geo;
    info.metadata = {"TIFFTAG_SOFTWARE=dhc " + std::string(DHC_VERSION), "DHC_PROGRAM=dhc",
                     "DHC_VERSION=" + std::string(DHC_VERSION)};
    info.colours = dhc::io::tableColours(plane);
    writeOutput(out, format, dhc::io::LabelPlane(plane, rows, cols), info);
}

namespace {

// 0. Every output, one line each: compared with every input and every output
// before it; then every output's format, checked before anything is read.
struct Outputs {
    OutputFiles files;
    const OutputFiles::Output& labels;
    const OutputFiles::Output& report;
    const OutputFiles::Output& fragments;
    const OutputFiles::Output& png;
    const OutputFiles::Output& levels;
    const OutputFiles::Output& tree;
    const OutputFiles::Output& treePng;
    const OutputFiles::Output& treeSvg;
    const OutputFiles::Output& polygons;
    const OutputFiles::Output& html;
    const OutputFiles::Output& model;
    dhc::io::OutputFormat labelsFormat;
    dhc::io::OutputFormat fragmentsFormat;
    dhc::io::OutputFormat levelsFormat;
    std::string polygonsDriver;

    explicit Outputs(const SegmentOptions& o)
        : files({o.image, o.config, o.mask, o.init, o.gt}),
          labels(files.add(o.output)),
          report(files.add(o.report)),
          fragments(files.add(o.fragments)),
          png(files.add(o.png)),
          levels(files.add(o.levels)),
          tree(files.add(o.tree)),
          treePng(files.add(o.treePng)),
          treeSvg(files.add(o.treeSvg)),
          polygons(files.add(o.polygons)),
          html(files.add(o.html)),
          model(files.add(o.model)) {
        labelsFormat = dhc::io::outputFormat("-o", o.output, o.format, o.creationOptions, 1);
        if (!o.fragments.empty())
            fragmentsFormat = dhc::io::outputFormat("--fragments", o.fragments, o.format, o.creationOptions, 1);
        // The number of cuts is known after the run: the driver must take many bands.
        if (!o.levels.empty())
            levelsFormat = dhc::io::outputFormat("--levels", o.levels, o.format, o.creationOptions, kProbeBands);
        if (!o.polygons.empty()) polygonsDriver = dhc::io::polygonDriver("--polygons", o.polygons);
    }

    // Writers that open files by name (GDAL) take a path.
    void namePathWriters() {
        for (const auto& [out, format] : {std::pair{&labels, &labelsFormat}, std::pair{&fragments, &fragmentsFormat},
                                          std::pair{&levels, &levelsFormat}})
            if (!format->hraw()) files.writeByPath(*out);
    }
};

// The part of the inputs that --bands and --window select.
dhc::io::Subset subsetOf(const SegmentOptions& o) {
    const bool subset = !o.bands.empty() || o.hasWindow;
    if (subset)
        for (const std::string* name : {&o.image, &o.mask, &o.init, &o.gt})
            if (!name->empty() && dhc::io::isHraw(*name))
                throw InputError(kExitUsage, std::string(o.hasWindow ? "--window" : "--bands") + " reads through GDAL: \"" +
                                                 *name + "\" is an hraw file, which is read whole");
    dhc::io::Subset part;
    part.bands = o.bands;
    part.hasWindow = o.hasWindow;
    part.col = o.window[0];
    part.row = o.window[1];
    part.cols = o.window[2];
    part.rows = o.window[3];
    return part;
}

// The input rasters: GDAL ones read, hraw ones only checked until the run is certain.
struct Inputs {
    HrawShape image;
    dhc::io::Raster imageRaster, maskRaster, initRaster, gtRaster;
    // Of the image, kept when its raster goes before the outputs are made.
    bool scaled = false;  // floating-point values scaled to integers
    double scale = 1;
    dhc::io::Georeference geo;
};

// 2. The input files: readable, well-formed, all of the image's size.
// hraw files are checked now and read once the run is certain; other
// rasters are read through GDAL, which checks them as it goes.
void checkInputs(const SegmentOptions& o, const dhc::io::Subset& part, Inputs& in) {
    dhc::io::Conversion conversion;
    if (o.hasScale) conversion.scale = o.scale;
    if (o.hasNodata) conversion.nodata = o.nodata;
    // Each must be a regular file: a pipe would block the first open, a
    // device might never end.
    const std::pair<const std::string*, const char*> inputFiles[] = {
        {&o.image, "image"}, {&o.mask, "mask"}, {&o.init, "initial segmentation"}, {&o.gt, "ground truth"}};
    for (const auto& [name, role] : inputFiles)
        if (!name->empty() && !dhc::io::isVirtualPath(*name)) dhc::checkInputFile(*name, role);
    if (dhc::io::isHraw(o.image)) {
        in.image = checkHraw(o.image, "image");
        dhc::checkImageSize(in.image.rows, in.image.cols, in.image.bands, "image \"" + o.image + "\"");
        in.imageRaster.bands = in.image.bands;
        in.imageRaster.rows = in.image.rows;
        in.imageRaster.cols = in.image.cols;
    } else {
        in.imageRaster = dhc::io::readImage(o.image, "image", conversion, part);
        in.image = HrawShape{in.imageRaster.bands, in.imageRaster.rows, in.imageRaster.cols};
        dhc::checkImageSize(in.image.rows, in.image.cols, in.image.bands, "image \"" + o.image + "\"");
    }
    auto checkOrRead = [&](const std::string& path, const std::string& role, dhc::io::Raster& into) {
        if (path.empty()) return;
        if (dhc::io::isHraw(path))
            checkMap(path, role, in.image);
        else
            into = dhc::io::readMap(path, role, in.imageRaster, role == "mask");
    };
    checkOrRead(o.mask, "mask", in.maskRaster);
    checkOrRead(o.init, "initial segmentation", in.initRaster);
    checkOrRead(o.gt, "ground truth", in.gtRaster);
    in.scaled = in.imageRaster.hasFloatBands;
    in.scale = in.imageRaster.scale;
    in.geo = in.imageRaster.geo;
}

// 3. What the settings allow; returns whether an output needs the tree.
bool checkAgainstSettings(const SegmentOptions& o, const DHC_SET& settings) {
    const bool supervised = settings.supervisedMode;
    dhc::requireGroundTruth(supervised, !o.gt.empty(), "SupervisedMode=1", "--gt GT.hraw");
    if (!supervised && !o.gt.empty())
        throw InputError(
            kExitInput,
            "--gt is used only in supervised mode (set SEGM_MAIN_CONFIGURATION.SupervisedMode=1)");
    // The same rule as the gateway's: no tree outputs once the map has been cut into pieces.
    const bool treeOutput = dhc::hasTreeOutput(settings);
    const bool fragmentOutput = dhc::hasFragmentOutput(settings);
    if (!o.report.empty() && !treeOutput)
        throw InputError(kExitInput,
                         "--report is not available with Fragmentation=1 or SplitwiseDisconnect=1");
    const std::pair<bool, const char*> treeOptions[] = {{!o.levels.empty(), "--levels"},
                                                        {o.cut > 0, "--cut"},
                                                        {!o.tree.empty(), "--tree"},
                                                        {!o.treePng.empty(), "--tree-png"},
                                                        {!o.treeSvg.empty(), "--tree-svg"},
                                                        {!o.html.empty(), "--html"},
                                                        {!o.model.empty(), "--model"}};
    bool wantsTree = false;
    for (const auto& [given, name] : treeOptions) {
        if (given && !treeOutput)
            throw InputError(kExitInput,
                             std::string(name) +
                                 " is not available with Fragmentation=1 or SplitwiseDisconnect=1: "
                                 "the tree does not describe the final map");
        wantsTree = wantsTree || given;
    }
    if (!o.fragments.empty() && !fragmentOutput)
        throw InputError(kExitInput, "--fragments needs Fragmentation=1 and SplitwiseDisconnect=0");
    return wantsTree;
}

// 5. The region of interest, exactly as the gateway builds it; the input
// planes go as soon as the core holds its copies.  With `report` set, the
// report's picture is made while the image is at hand.
dhc::PreparedRun prepareRegion(const SegmentOptions& o, Inputs& in, const DHC_SET& settings, const IniFile& ini,
                               const std::array<int, 3>& rgb, bool report,
                               std::optional<dhc::RgbImage>& picture) {
    const HrawShape& image = in.image;
    if (in.imageRaster.cube == nullptr) {
        in.imageRaster = readHraw(o.image);
        if (o.hasNodata) markNodata(in.imageRaster, o.nodata, o.image);
    }
    if (!o.mask.empty() && in.maskRaster.cube == nullptr) in.maskRaster = readHraw(o.mask);
    if (!o.init.empty() && in.initRaster.cube == nullptr) in.initRaster = readHraw(o.init);
    if (settings.supervisedMode && in.gtRaster.cube == nullptr) in.gtRaster = readHraw(o.gt);
    int** mask = in.maskRaster.cube != nullptr ? in.maskRaster.cube[0] : nullptr;
    int** init = in.initRaster.cube != nullptr ? in.initRaster.cube[0] : nullptr;
    // Nodata pixels of the image (and of a GDAL mask) leave the region of
    // interest: it becomes an explicit mask without them.
    std::vector<uint8_t> valid = in.imageRaster.valid;
    if (!in.maskRaster.valid.empty()) {
        if (valid.empty()) valid.assign(in.maskRaster.valid.size(), 1);
        for (size_t i = 0; i < valid.size(); ++i) valid[i] &= in.maskRaster.valid[i];
    }
    std::vector<int> dataMask;
    std::vector<int*> dataMaskRows;
    if (!valid.empty()) {
        dataMask = dhc::maskWithoutNodata(image.rows, image.cols, mask, init, valid);
        dataMaskRows.resize(static_cast<size_t>(image.rows));
        for (int r = 0; r < image.rows; ++r)
            dataMaskRows[static_cast<size_t>(r)] = &dataMask[static_cast<size_t>(r) * static_cast<size_t>(image.cols)];
        mask = dataMaskRows.data();
    }
    if (report) {
        int*** cube = in.imageRaster.cube;
        dhc::ImageView view;
        view.bands = image.bands;
        view.rows = image.rows;
        view.cols = image.cols;
        view.value = [cube](int b, int r, int c) { return cube[b][r][c]; };
        view.valid = &in.imageRaster.valid;
        picture = dhc::falseColour(view, rgb);
    }
    dhc::RunNames names;
    names.gt = "ground truth \"" + o.gt + "\"";
    names.settings = settingNames(ini);
    dhc::PreparedRun run =
        dhc::prepareRun(image.rows, image.cols, image.bands, in.imageRaster.cube, mask, init,
                        in.gtRaster.cube != nullptr ? in.gtRaster.cube[0] : nullptr, settings, names, o.threads);
    // The polygons' means are taken from the image: it stays for them.
    if (o.polygons.empty()) in.imageRaster = dhc::io::Raster();
    in.maskRaster = dhc::io::Raster();
    in.initRaster = dhc::io::Raster();
    in.gtRaster = dhc::io::Raster();
    return run;
}

// 6. The run, with its progress lines unless quiet (quiet means quiet: the
// segmenter's own lines, mean-shift estimates, too).
DHC_OUT segment(const SegmentOptions& o, const dhc::PreparedRun& run, DHC_SET& settings, const Inputs& in) {
    if (!o.quiet) {
        const HrawShape& image = in.image;
        std::cerr << "dhc: segmenting \"" << o.image << "\": " << image.rows << " x " << image.cols << ", "
                  << image.bands << (image.bands == 1 ? " band, " : " bands, ") << run.roi->count
                  << " pixels in the region of interest";
        if (in.scaled) std::cerr << "; floating-point values scaled by " << in.scale;
        std::cerr << "\n";
        DHC::setProgress([](int leaves, int label) {
            std::cerr << "dhc: split region " << label << ", " << leaves << " leaves" << std::endl;
        });
    } else {
        DHC::setProgress(nullptr);
    }
    std::ostream silent(nullptr);
    struct Restore {
        bool on;
        ~Restore() {
            if (on) dhc::setOut(nullptr);
        }
    } restore{o.quiet};
    if (o.quiet) dhc::setOut(&silent);
    DHC_OUT out = dhc::runSegmentation(run, settings, o.threads);
    const dhc::FinishedRun finished(out);
    if (!o.quiet && out.dhc != nullptr && !finished.stopReason().empty())
        std::cerr << "dhc: " << finished.stopReason() << "\n";
    return out;
}

// What the outputs of step 7 are made from.
struct Results {
    const SegmentOptions& o;
    const DHC_SET& settings;
    DHC_OUT& out;
    const Inputs& in;
    std::vector<int> labels;             // the final map, or the --cut one
    std::unique_ptr<dhc::Hierarchy> tree;  // when an output needs it
    std::vector<int> relabelled;         // the region label of each class, with --relabel
    dhc::io::MapInfo info;               // what every raster output says of itself
    dhc::TreeOptions pictureOptions;
};

void writePolygons(const Results& r, const Outputs& outputs) {
    const SegmentOptions& o = r.o;
    dhc::io::PolygonSource polygons;
    polygons.labels = &r.labels;
    polygons.rows = r.in.image.rows;
    polygons.cols = r.in.image.cols;
    polygons.image = &r.in.imageRaster;
    polygons.geo = r.info.geo;
    polygons.sieve = o.sieve;
    polygons.metadata = r.info.metadata;
    polygons.metadata.push_back("DHC_SIEVE=" + std::to_string(o.sieve));
    polygons.metadata.push_back(o.sieve > 1 ? "DHC_SIEVED=pieces under " + std::to_string(o.sieve) +
                                                  " pixels merged into their neighbours before polygonizing"
                                            : "DHC_SIEVED=no");
    OutputFiles::writeAll(outputs.polygons,
                          dhc::io::polygonFile(o.polygons, o.polygons, outputs.polygonsDriver, polygons));
}

void writeLabelMap(const Results& r, const Outputs& outputs) {
    const SegmentOptions& o = r.o;
    dhc::io::MapInfo labelInfo = r.info;
    labelInfo.colours = dhc::io::tableColours(r.labels);
    if (o.cut > 0) labelInfo.metadata.push_back("DHC_CUT=" + std::to_string(o.cut) + " classes");
    if (o.relabel)
        labelInfo.metadata.push_back("DHC_RELABEL=classes 1 to " + std::to_string(r.relabelled.size()) +
                                     " in ascending order of their region labels");
    writeOutput(outputs.labels, outputs.labelsFormat, dhc::io::LabelPlane(r.labels, r.in.image.rows, r.in.image.cols),
                labelInfo);
}

void writeFragments(const Results& r, const Outputs& outputs) {
    if (r.out.fragRoi == nullptr) throw InputError(kExitInput, "the segmentation produced no fragment map");
    const HrawShape& image = r.in.image;
    std::vector<int> fragments = dhc::fullFrame(*r.out.fragRoi, image.rows, image.cols);
    dhc::io::MapInfo fragmentInfo = r.info;
    fragmentInfo.colours = dhc::io::tableColours(fragments);
    writeOutput(outputs.fragments, outputs.fragmentsFormat, dhc::io::LabelPlane(fragments, image.rows, image.cols),
                fragmentInfo);
}

void writeModel(const Results& r, const Outputs& outputs) {
    dhc::ValueConversion values;
    values.floatBands = r.in.scaled;
    values.scale = r.in.scaled ? r.in.scale : 1;
    values.hasNodata = r.o.hasNodata;
    values.nodata = r.o.nodata;
    try {
        OutputFiles::writeAll(outputs.model,
                              dhc::modelJsonText(dhc::modelFromRun(r.out, r.settings, values, "dhc", DHC_VERSION)));
    } catch (const dhc::HierarchyError& e) {
        throw InputError(kExitInput, e.what());
    }
}

// The times of the run's parts, for the report page.
struct Timing {
    std::chrono::steady_clock::time_point start, runStart, runEnd;
};

void writeHtml(const Results& r, const Outputs& outputs, const dhc::RgbImage& picture,
               const std::array<int, 3>& rgb, const Timing& t) {
    auto seconds = [](auto from, auto to) { return std::chrono::duration<double>(to - from).count(); };
    dhc::ReportRun report;
    report.title = r.o.image;
    report.program = "dhc";
    report.version = DHC_VERSION;
    report.settings = dhc::settingsJson(r.settings);
    report.rgb = rgb;
    report.bands = r.in.image.bands;
    report.pixelArea = r.pictureOptions.pixelArea;
    // report.stoppingReason: the sentence of the run's stopping record, once runs keep one.
    report.timings = {{"reading the inputs", seconds(t.start, t.runStart)},
                      {"segmentation", seconds(t.runStart, t.runEnd)},
                      {"the other outputs", seconds(t.runEnd, std::chrono::steady_clock::now())}};
    try {
        OutputFiles::writeAll(outputs.html, dhc::htmlReport(*r.tree, picture, report));
    } catch (const dhc::WriteError& e) {
        throw InputError(kExitInput, e.what());
    }
}

// 7. The outputs (the renames follow).
void writeOutputs(Results& r, Outputs& outputs, const std::optional<dhc::RgbImage>& picture,
                  const std::array<int, 3>& rgb, const Timing& t) {
    const SegmentOptions& o = r.o;
    if (outputs.polygons.given()) writePolygons(r, outputs);
    if (o.relabel) r.relabelled = dhc::relabelConsecutive(r.labels);
    writeLabelMap(r, outputs);
    if (outputs.report.given()) {
        std::ostringstream report;
        r.out.dhc->printReport(report);
        if (!report) throw InputError(kExitInput, "cannot make the report");
        OutputFiles::writeAll(outputs.report, report.str());
    }
    if (outputs.fragments.given()) writeFragments(r, outputs);
    if (outputs.levels.given()) writeOutput(outputs.levels, outputs.levelsFormat, LevelBands(*r.tree), r.info);
    if (outputs.tree.given()) {
        nlohmann::ordered_json doc = dhc::treeJson(*r.tree, r.settings, "dhc", DHC_VERSION);
        if (o.relabel) doc["relabel"] = {{"order", "ascending region label"}, {"classes", r.relabelled}};
        OutputFiles::writeAll(outputs.tree, doc.dump(2) + "\n");
    }
    if (outputs.treeSvg.given()) OutputFiles::writeAll(outputs.treeSvg, dhc::treeSvg(*r.tree, r.pictureOptions));
    if (outputs.model.given()) writeModel(r, outputs);
    if (outputs.treePng.given()) {
        try {
            dhc::treePicture(*r.tree, r.pictureOptions).writePng(outputs.treePng.fd, o.treePng);
        } catch (const dhc::WriteError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    if (outputs.png.given()) writeLabelPng(outputs.png.fd, o.png, r.labels, r.in.image.rows, r.in.image.cols);
    if (outputs.html.given()) writeHtml(r, outputs, *picture, rgb, t);
}

}  // namespace

int runSegment(const SegmentOptions& o) {
    Timing t;
    t.start = std::chrono::steady_clock::now();

    // 0. The outputs and their formats, the part of the inputs to read.
    Outputs outputs(o);
    const dhc::io::Subset part = subsetOf(o);
    outputs.namePathWriters();

    // 1. The configuration, with the overrides, checked as a whole.
    IniFile ini = o.config.empty() ? IniFile("default.ini", kDefaultIni) : IniFile::fromFile(o.config);
    for (const std::string& assignment : o.sets) ini.applyOverride(assignment);
    const std::unique_ptr<DHC_SET> settings = readCheckedSettings(ini);

    // 2. and 3. The inputs, and what the settings allow.
    Inputs in;
    checkInputs(o, part, in);
    const bool wantsTree = checkAgainstSettings(o, *settings);
    const std::array<int, 3> rgb =
        o.rgb.empty() ? dhc::defaultRgbBands(in.image.bands)
                      : dhc::checkRgbBands(dhc::parseRgbBands(o.rgb, "--rgb"), in.image.bands, "--rgb");

    // 4. The outputs, created empty under temporary names before the long part.
    outputs.files.create();

    // 5. and 6. The region of interest, and the run.
    std::optional<dhc::RgbImage> picture;
    dhc::PreparedRun run = prepareRegion(o, in, *settings, ini, rgb, outputs.html.given(), picture);
    t.runStart = std::chrono::steady_clock::now();
    DHC_OUT out = segment(o, run, *settings, in);
    t.runEnd = std::chrono::steady_clock::now();
    const int points = run.roi->count;
    // Like the gateway, let the inputs go before the outputs are made.
    run = dhc::PreparedRun();
    if (out.labelRoi == nullptr || out.labelRoi->count != points)
        throw InputError(kExitInput, "the segmentation produced no label map");

    // 7. The outputs, then the renames.
    Results r{o, *settings, out, in, dhc::fullFrame(*out.labelRoi, in.image.rows, in.image.cols), nullptr, {}, {}, {}};
    if (wantsTree) {
        try {
            r.tree = std::make_unique<dhc::Hierarchy>(dhc::Hierarchy::fromRun(out, *settings));
        } catch (const dhc::HierarchyError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    if (o.cut > 0) {
        const int k = r.tree->splitsForLeaves(o.cut);
        if (k < 0) throw InputError(kExitInput, noCut(*r.tree, o.cut));
        r.labels = r.tree->cut(k);
    }
    r.info.geo = in.geo;
    r.info.metadata = {"TIFFTAG_SOFTWARE=dhc " + std::string(DHC_VERSION), "DHC_PROGRAM=dhc",
                       "DHC_VERSION=" + std::string(DHC_VERSION), "DHC_SETTINGS=" + dhc::settingsJson(*settings).dump()};
    r.pictureOptions.pixelArea = dhc::io::pixelArea(r.info.geo);
    writeOutputs(r, outputs, picture, rgb, t);
    outputs.files.commit();

    if (!o.quiet) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t.start).count();
        std::cerr << "dhc: " << out.nClasses << (out.nClasses == 1 ? " class" : " classes") << " in "
                  << std::fixed << std::setprecision(2) << seconds << " s; label map \"" << o.output
                  << "\"\n";
    }
    return kExitOk;
}
