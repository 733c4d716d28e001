#include "Segment.h"

#include <algorithm>
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

int runSegment(const SegmentOptions& o) {
    const auto start = std::chrono::steady_clock::now();

    // 0. Every output, one line each: compared with every input and every
    // output before it; then every output's format, checked before anything
    // is read.  Writers that open files by name (GDAL) take a path.
    OutputFiles outputs({o.image, o.config, o.mask, o.init, o.gt});
    const OutputFiles::Output& labelsOut = outputs.add(o.output);
    const OutputFiles::Output& reportOut = outputs.add(o.report);
    const OutputFiles::Output& fragmentsOut = outputs.add(o.fragments);
    const OutputFiles::Output& pngOut = outputs.add(o.png);
    const OutputFiles::Output& levelsOut = outputs.add(o.levels);
    const OutputFiles::Output& treeOut = outputs.add(o.tree);
    const OutputFiles::Output& treePngOut = outputs.add(o.treePng);
    const OutputFiles::Output& treeSvgOut = outputs.add(o.treeSvg);
    const OutputFiles::Output& polygonsOut = outputs.add(o.polygons);
    const OutputFiles::Output& htmlOut = outputs.add(o.html);
    const OutputFiles::Output& modelOut = outputs.add(o.model);

    const dhc::io::OutputFormat labelsFormat =
        dhc::io::outputFormat("-o", o.output, o.format, o.creationOptions, 1);
    const dhc::io::OutputFormat fragmentsFormat =
        o.fragments.empty() ? dhc::io::OutputFormat()
                            : dhc::io::outputFormat("--fragments", o.fragments, o.format, o.creationOptions, 1);
    // The number of cuts is known after the run: the driver must take many bands.
    const dhc::io::OutputFormat levelsFormat =
        o.levels.empty() ? dhc::io::OutputFormat()
                         : dhc::io::outputFormat("--levels", o.levels, o.format, o.creationOptions, kProbeBands);
    const std::string polygonsDriver =
        o.polygons.empty() ? std::string() : dhc::io::polygonDriver("--polygons", o.polygons);
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
    for (const auto& [out, format] : {std::pair{&labelsOut, &labelsFormat}, std::pair{&fragmentsOut, &fragmentsFormat},
                                      std::pair{&levelsOut, &levelsFormat}})
        if (!format->hraw()) outputs.writeByPath(*out);

    // 1. The configuration, with the overrides, checked as a whole.
    IniFile ini = o.config.empty() ? IniFile("default.ini", kDefaultIni) : IniFile::fromFile(o.config);
    for (const std::string& assignment : o.sets) ini.applyOverride(assignment);
    const std::unique_ptr<DHC_SET> settings = readCheckedSettings(ini);

    // 2. The input files: readable, well-formed, all of the image's size.
    // hraw files are checked now and read once the run is certain; other
    // rasters are read through GDAL, which checks them as it goes.
    dhc::io::Conversion conversion;
    if (o.hasScale) conversion.scale = o.scale;
    if (o.hasNodata) conversion.nodata = o.nodata;
    // Each must be a regular file: a pipe would block the first open, a
    // device might never end.
    const std::pair<const std::string*, const char*> inputFiles[] = {
        {&o.image, "image"}, {&o.mask, "mask"}, {&o.init, "initial segmentation"}, {&o.gt, "ground truth"}};
    for (const auto& [name, role] : inputFiles)
        if (!name->empty() && !dhc::io::isVirtualPath(*name)) dhc::checkInputFile(*name, role);
    dhc::io::Raster imageRaster;
    HrawShape image;
    if (dhc::io::isHraw(o.image)) {
        image = checkHraw(o.image, "image");
        dhc::checkImageSize(image.rows, image.cols, image.bands, "image \"" + o.image + "\"");
        imageRaster.bands = image.bands;
        imageRaster.rows = image.rows;
        imageRaster.cols = image.cols;
    } else {
        imageRaster = dhc::io::readImage(o.image, "image", conversion, part);
        image = HrawShape{imageRaster.bands, imageRaster.rows, imageRaster.cols};
        dhc::checkImageSize(image.rows, image.cols, image.bands, "image \"" + o.image + "\"");
    }
    dhc::io::Raster maskRaster, initRaster, gtRaster;
    auto checkOrRead = [&](const std::string& path, const std::string& role, dhc::io::Raster& into) {
        if (path.empty()) return;
        if (dhc::io::isHraw(path))
            checkMap(path, role, image);
        else
            into = dhc::io::readMap(path, role, imageRaster, role == "mask");
    };
    checkOrRead(o.mask, "mask", maskRaster);
    checkOrRead(o.init, "initial segmentation", initRaster);
    checkOrRead(o.gt, "ground truth", gtRaster);

    // 3. What the settings allow.
    const bool supervised = settings->supervisedMode;
    dhc::requireGroundTruth(supervised, !o.gt.empty(), "SupervisedMode=1", "--gt GT.hraw");
    if (!supervised && !o.gt.empty())
        throw InputError(
            kExitInput,
            "--gt is used only in supervised mode (set SEGM_MAIN_CONFIGURATION.SupervisedMode=1)");
    // The same rule as the gateway's: no tree outputs once the map has been cut into pieces.
    const bool treeOutput = dhc::hasTreeOutput(*settings);
    const bool fragmentOutput = dhc::hasFragmentOutput(*settings);
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

    const std::array<int, 3> rgb =
        o.rgb.empty() ? dhc::defaultRgbBands(image.bands)
                      : dhc::checkRgbBands(dhc::parseRgbBands(o.rgb, "--rgb"), image.bands, "--rgb");

    const bool scaled = imageRaster.hasFloatBands;
    const double scale = imageRaster.scale;

    // 4. The outputs, created empty under temporary names before the long part.
    outputs.create();

    // 5. The region of interest, exactly as the gateway builds it; the input
    // planes go as soon as the core holds its copies.
    dhc::PreparedRun run;
    const dhc::io::Georeference geo = imageRaster.geo;
    std::optional<dhc::RgbImage> picture;  // the report's, made while the image is at hand
    {
        if (imageRaster.cube == nullptr) {
            imageRaster = readHraw(o.image);
            if (o.hasNodata) markNodata(imageRaster, o.nodata, o.image);
        }
        if (!o.mask.empty() && maskRaster.cube == nullptr) maskRaster = readHraw(o.mask);
        if (!o.init.empty() && initRaster.cube == nullptr) initRaster = readHraw(o.init);
        if (supervised && gtRaster.cube == nullptr) gtRaster = readHraw(o.gt);
        int** mask = maskRaster.cube != nullptr ? maskRaster.cube[0] : nullptr;
        int** init = initRaster.cube != nullptr ? initRaster.cube[0] : nullptr;
        // Nodata pixels of the image (and of a GDAL mask) leave the region of
        // interest: it becomes an explicit mask without them.
        std::vector<uint8_t> valid = imageRaster.valid;
        if (!maskRaster.valid.empty()) {
            if (valid.empty()) valid.assign(maskRaster.valid.size(), 1);
            for (size_t i = 0; i < valid.size(); ++i) valid[i] &= maskRaster.valid[i];
        }
        std::vector<int> dataMask;
        std::vector<int*> dataMaskRows;
        if (!valid.empty()) {
            dataMask = dhc::maskWithoutNodata(image.rows, image.cols, mask, init, valid);
            dataMaskRows.resize(static_cast<size_t>(image.rows));
            for (int r = 0; r < image.rows; ++r)
                dataMaskRows[static_cast<size_t>(r)] =
                    &dataMask[static_cast<size_t>(r) * static_cast<size_t>(image.cols)];
            mask = dataMaskRows.data();
        }
        if (htmlOut.given()) {
            int*** cube = imageRaster.cube;
            dhc::ImageView view;
            view.bands = image.bands;
            view.rows = image.rows;
            view.cols = image.cols;
            view.value = [cube](int b, int r, int c) { return cube[b][r][c]; };
            view.valid = &imageRaster.valid;
            picture = dhc::falseColour(view, rgb);
        }
        dhc::RunNames names;
        names.gt = "ground truth \"" + o.gt + "\"";
        names.settings = settingNames(ini);
        run = dhc::prepareRun(image.rows, image.cols, image.bands, imageRaster.cube, mask, init,
                              gtRaster.cube != nullptr ? gtRaster.cube[0] : nullptr, *settings, names,
                              o.threads);
        // The polygons' means are taken from the image: it stays for them.
        if (o.polygons.empty()) imageRaster = dhc::io::Raster();
        maskRaster = dhc::io::Raster();
        initRaster = dhc::io::Raster();
        gtRaster = dhc::io::Raster();
    }

    // 6. The run.
    if (!o.quiet) {
        std::cerr << "dhc: segmenting \"" << o.image << "\": " << image.rows << " x " << image.cols << ", "
                  << image.bands << (image.bands == 1 ? " band, " : " bands, ") << run.roi->count
                  << " pixels in the region of interest";
        if (scaled) std::cerr << "; floating-point values scaled by " << scale;
        std::cerr << "\n";
        DHC::setProgress([](int leaves, int label) {
            std::cerr << "dhc: split region " << label << ", " << leaves << " leaves" << std::endl;
        });
    } else {
        DHC::setProgress(nullptr);
    }
    // Quiet means quiet: the segmenter's own lines (mean-shift estimates) too.
    std::ostream silent(nullptr);
    struct Restore {
        bool on;
        ~Restore() {
            if (on) dhc::setOut(nullptr);
        }
    } restore{o.quiet};
    if (o.quiet) dhc::setOut(&silent);
    const auto runStart = std::chrono::steady_clock::now();
    DHC_OUT out = dhc::runSegmentation(run, *settings, o.threads);
    const auto runEnd = std::chrono::steady_clock::now();
    if (!o.quiet && out.dhc != nullptr && !out.dhc->stopReason.empty())
        std::cerr << "dhc: " << out.dhc->stopReason << "\n";
    const int points = run.roi->count;
    // Like the gateway, let the inputs go before the outputs are made.
    run = dhc::PreparedRun();
    if (out.labelRoi == nullptr || out.labelRoi->count != points)
        throw InputError(kExitInput, "the segmentation produced no label map");

    // 7. The outputs, then the renames.
    std::vector<int> labels = dhc::fullFrame(*out.labelRoi, image.rows, image.cols);
    std::unique_ptr<dhc::Hierarchy> tree;
    if (wantsTree) {
        try {
            tree = std::make_unique<dhc::Hierarchy>(dhc::Hierarchy::fromRun(out, *settings));
        } catch (const dhc::HierarchyError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    if (o.cut > 0) {
        const int k = tree->splitsForLeaves(o.cut);
        if (k < 0) throw InputError(kExitInput, noCut(*tree, o.cut));
        labels = tree->cut(k);
    }
    // What every raster output says of itself.
    dhc::io::MapInfo info;
    info.geo = geo;
    info.metadata = {"TIFFTAG_SOFTWARE=dhc " + std::string(DHC_VERSION), "DHC_PROGRAM=dhc",
                     "DHC_VERSION=" + std::string(DHC_VERSION),
                     "DHC_SETTINGS=" + dhc::settingsJson(*settings).dump()};
    if (polygonsOut.given()) {
        dhc::io::PolygonSource polygons;
        polygons.labels = &labels;
        polygons.rows = image.rows;
        polygons.cols = image.cols;
        polygons.image = &imageRaster;
        polygons.geo = geo;
        polygons.sieve = o.sieve;
        polygons.metadata = info.metadata;
        polygons.metadata.push_back("DHC_SIEVE=" + std::to_string(o.sieve));
        polygons.metadata.push_back(o.sieve > 1 ? "DHC_SIEVED=pieces under " + std::to_string(o.sieve) +
                                                      " pixels merged into their neighbours before polygonizing"
                                                : "DHC_SIEVED=no");
        OutputFiles::writeAll(polygonsOut, dhc::io::polygonFile(o.polygons, o.polygons, polygonsDriver, polygons));
    }
    std::vector<int> relabelled;  // the region label of each class, with --relabel
    if (o.relabel) relabelled = dhc::relabelConsecutive(labels);
    {
        dhc::io::MapInfo labelInfo = info;
        labelInfo.colours = dhc::io::tableColours(labels);
        if (o.cut > 0) labelInfo.metadata.push_back("DHC_CUT=" + std::to_string(o.cut) + " classes");
        if (o.relabel) labelInfo.metadata.push_back("DHC_RELABEL=classes 1 to " + std::to_string(relabelled.size()) +
                                                    " in ascending order of their region labels");
        writeOutput(labelsOut, labelsFormat, dhc::io::LabelPlane(labels, image.rows, image.cols), labelInfo);
    }
    if (reportOut.given()) {
        std::ostringstream report;
        out.dhc->printReport(report);
        if (!report) throw InputError(kExitInput, "cannot make the report");
        OutputFiles::writeAll(reportOut, report.str());
    }
    if (fragmentsOut.given()) {
        if (out.fragRoi == nullptr) throw InputError(kExitInput, "the segmentation produced no fragment map");
        std::vector<int> fragments = dhc::fullFrame(*out.fragRoi, image.rows, image.cols);
        dhc::io::MapInfo fragmentInfo = info;
        fragmentInfo.colours = dhc::io::tableColours(fragments);
        writeOutput(fragmentsOut, fragmentsFormat, dhc::io::LabelPlane(fragments, image.rows, image.cols),
                    fragmentInfo);
    }
    if (levelsOut.given()) writeOutput(levelsOut, levelsFormat, LevelBands(*tree), info);
    if (treeOut.given()) {
        nlohmann::ordered_json doc = dhc::treeJson(*tree, *settings, "dhc", DHC_VERSION);
        if (o.relabel) doc["relabel"] = {{"order", "ascending region label"}, {"classes", relabelled}};
        OutputFiles::writeAll(treeOut, doc.dump(2) + "\n");
    }
    dhc::TreeOptions pictureOptions;
    pictureOptions.pixelArea = dhc::io::pixelArea(geo);
    if (treeSvgOut.given()) OutputFiles::writeAll(treeSvgOut, dhc::treeSvg(*tree, pictureOptions));
    if (modelOut.given()) {
        dhc::ValueConversion values;
        values.floatBands = scaled;
        values.scale = scaled ? scale : 1;
        values.hasNodata = o.hasNodata;
        values.nodata = o.nodata;
        try {
            OutputFiles::writeAll(modelOut,
                                  dhc::modelJsonText(dhc::modelFromRun(out, *settings, values, "dhc", DHC_VERSION)));
        } catch (const dhc::HierarchyError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    if (treePngOut.given()) {
        try {
            dhc::treePicture(*tree, pictureOptions).writePng(treePngOut.fd, o.treePng);
        } catch (const dhc::WriteError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    if (pngOut.given()) writeLabelPng(pngOut.fd, o.png, labels, image.rows, image.cols);
    if (htmlOut.given()) {
        auto seconds = [](auto from, auto to) { return std::chrono::duration<double>(to - from).count(); };
        dhc::ReportRun report;
        report.title = o.image;
        report.program = "dhc";
        report.version = DHC_VERSION;
        report.settings = dhc::settingsJson(*settings);
        report.rgb = rgb;
        report.bands = image.bands;
        report.pixelArea = pictureOptions.pixelArea;
        // report.stoppingReason: the sentence of the run's stopping record, once runs keep one.
        report.timings = {{"reading the inputs", seconds(start, runStart)},
                          {"segmentation", seconds(runStart, runEnd)},
                          {"the other outputs", seconds(runEnd, std::chrono::steady_clock::now())}};
        try {
            OutputFiles::writeAll(htmlOut, dhc::htmlReport(*tree, *picture, report));
        } catch (const dhc::WriteError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    outputs.commit();

    if (!o.quiet) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::cerr << "dhc: " << out.nClasses << (out.nClasses == 1 ? " class" : " classes") << " in "
                  << std::fixed << std::setprecision(2) << seconds << " s; label map \"" << o.output
                  << "\"\n";
    }
    return kExitOk;
}
