#include "Segment.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
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
#include "frontend/InputError.h"
#include "frontend/InputFile.h"
#include "frontend/Segmentation.h"
#include "frontend/SettingsCheck.h"
#include "hierarchy/Hierarchy.h"
#include "hierarchy/HtmlReport.h"
#include "hierarchy/RgbImage.h"
#include "hierarchy/TreeJson.h"
#include "hierarchy/TreePicture.h"
#include "io/Raster.h"
#include "settings/DHC_SET.h"

namespace {

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

// The colour table of a label map: the colours of its PNG picture, by label value.
std::vector<dhc::io::TableColour> tableColours(const std::vector<int>& labels) {
    std::set<int> present;
    for (int v : labels)
        if (v > 0 && v <= 65535) present.insert(v);
    std::vector<dhc::io::TableColour> table(present.empty() ? 1 : static_cast<size_t>(*present.rbegin()) + 1);
    int k = 0;
    for (int v : present) {
        const Rgb c = labelColour(k++);
        table[static_cast<size_t>(v)] = {c.r, c.g, c.b};
    }
    return table;
}

// Writes an hraw map of `bands` planes (one after the other in `planes`):
// the header (bands, rows, cols), then the planes, as int32.
void writeMap(const OutputFiles::Output& out, const std::vector<int>& planes, int rows, int cols,
              int bands = 1) {
    static_assert(sizeof(int) == sizeof(int32_t), "hraw values are int32");
    const int32_t header[3] = {bands, rows, cols};
    OutputFiles::writeAll(out, header, sizeof header);
    OutputFiles::writeAll(out, planes.data(), planes.size() * sizeof(int32_t));
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

// Writes a one-band map as hraw (no driver) or through GDAL, which writes
// to the temporary file by its name.
void writeOutput(const OutputFiles::Output& out, const std::string& driver, std::vector<int>& plane, int rows,
                 int cols, const dhc::io::Georeference& geo) {
    if (driver.empty())
        writeMap(out, plane, rows, cols);
    else
        dhc::io::writeLabelMap(out.path, out.target, driver, plane, rows, cols, geo, tableColours(plane));
}

}  // namespace

int runSegment(const SegmentOptions& o) {
    const auto start = std::chrono::steady_clock::now();

    // 0. Every output, one line each: compared with every input and every
    // output before it.  Writers that open files by name (GDAL) take a path.
    const std::string labelsDriver = dhc::io::outputDriver(o.output, o.format);
    const std::string fragmentsDriver =
        o.fragments.empty() ? std::string() : dhc::io::outputDriver(o.fragments, o.format);
    using Writer = OutputFiles::Writer;
    auto writerFor = [](const std::string& driver) { return driver.empty() ? Writer::descriptor : Writer::path; };
    OutputFiles outputs({o.image, o.config, o.mask, o.init, o.gt});
    const OutputFiles::Output& labelsOut = outputs.add(o.output, writerFor(labelsDriver));
    const OutputFiles::Output& reportOut = outputs.add(o.report);
    const OutputFiles::Output& fragmentsOut = outputs.add(o.fragments, writerFor(fragmentsDriver));
    const OutputFiles::Output& pngOut = outputs.add(o.png);
    const OutputFiles::Output& levelsOut = outputs.add(o.levels);
    const OutputFiles::Output& treeOut = outputs.add(o.tree);
    const OutputFiles::Output& treePngOut = outputs.add(o.treePng);
    const OutputFiles::Output& treeSvgOut = outputs.add(o.treeSvg);
    const OutputFiles::Output& htmlOut = outputs.add(o.html);

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
        if (!name->empty()) dhc::checkInputFile(*name, role);
    dhc::io::Raster imageRaster;
    HrawShape image;
    if (dhc::io::isHraw(o.image)) {
        image = checkHraw(o.image, "image");
        dhc::checkImageSize(image.rows, image.cols, image.bands, "image \"" + o.image + "\"");
        imageRaster.bands = image.bands;
        imageRaster.rows = image.rows;
        imageRaster.cols = image.cols;
    } else {
        imageRaster = dhc::io::readImage(o.image, "image", conversion);
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
    if (supervised && o.gt.empty())
        throw InputError(kExitInput, "supervised mode (SupervisedMode=1) needs a ground truth: --gt GT.hraw");
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
                                                        {!o.html.empty(), "--html"}};
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
            const size_t cols = static_cast<size_t>(image.cols);
            dataMask.assign(valid.size(), 0);
            dataMaskRows.resize(static_cast<size_t>(image.rows));
            bool any = false;
            for (int r = 0; r < image.rows; ++r) {
                dataMaskRows[static_cast<size_t>(r)] = &dataMask[static_cast<size_t>(r) * cols];
                for (int c = 0; c < image.cols; ++c) {
                    const bool inside = mask != nullptr ? mask[r][c] == 1 : init == nullptr || init[r][c] > 0;
                    const size_t k = static_cast<size_t>(r) * cols + static_cast<size_t>(c);
                    dataMask[k] = inside && valid[k] ? 1 : 0;
                    any = any || dataMask[k] == 1;
                }
            }
            if (!any)
                throw InputError(kExitInput,
                                 "the region of interest is empty once the nodata pixels are taken out");
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
        imageRaster = dhc::io::Raster();
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
    const auto runStart = std::chrono::steady_clock::now();
    DHC_OUT out = dhc::runSegmentation(run, *settings, o.threads);
    const auto runEnd = std::chrono::steady_clock::now();
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
    writeOutput(labelsOut, labelsDriver, labels, image.rows, image.cols, geo);
    if (reportOut.given()) {
        std::ostringstream report;
        out.dhc->printReport(report);
        if (!report) throw InputError(kExitInput, "cannot make the report");
        OutputFiles::writeAll(reportOut, report.str());
    }
    if (fragmentsOut.given()) {
        if (out.fragRoi == nullptr) throw InputError(kExitInput, "the segmentation produced no fragment map");
        std::vector<int> fragments = dhc::fullFrame(*out.fragRoi, image.rows, image.cols);
        writeOutput(fragmentsOut, fragmentsDriver, fragments, image.rows, image.cols, geo);
    }
    if (levelsOut.given()) writeMap(levelsOut, tree->levels(), image.rows, image.cols, tree->splits() + 1);
    if (treeOut.given())
        OutputFiles::writeAll(treeOut, dhc::treeJsonText(*tree, *settings, "dhc", DHC_VERSION));
    dhc::TreeOptions pictureOptions;
    pictureOptions.pixelArea = dhc::io::pixelArea(geo);
    if (treeSvgOut.given()) OutputFiles::writeAll(treeSvgOut, dhc::treeSvg(*tree, pictureOptions));
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
