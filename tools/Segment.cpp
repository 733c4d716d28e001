#include "Segment.h"

#include <chrono>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <memory>
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
#include "frontend/Segmentation.h"
#include "settings/DHC_SET.h"

namespace {

// A cube read by ImageFile, freed on scope exit.
struct Cube {
    int*** data = nullptr;
    int bands = 0, rows = 0, cols = 0;
    explicit Cube(const std::string& path) { data = ImageFile<int>::readHRawInt32(path, bands, rows, cols); }
    ~Cube() { ImageFile<int>::deleteCube(data, bands, rows); }
    Cube(const Cube&) = delete;
    Cube& operator=(const Cube&) = delete;
};

// Writes a one-band hraw map: the header (1, rows, cols), then the plane, as int32.
void writeMap(const OutputFiles::Output& out, const std::vector<int>& plane, int rows, int cols) {
    static_assert(sizeof(int) == sizeof(int32_t), "hraw values are int32");
    const int32_t header[3] = {1, rows, cols};
    OutputFiles::writeAll(out, header, sizeof header);
    OutputFiles::writeAll(out, plane.data(), plane.size() * sizeof(int32_t));
}

}  // namespace

int runSegment(const SegmentOptions& o) {
    const auto start = std::chrono::steady_clock::now();

    // 0. No output may be an input or another output.
    std::vector<std::string> inputs{o.image}, outputNames{o.output};
    for (const std::string* name : {&o.config, &o.mask, &o.init, &o.gt})
        if (!name->empty()) inputs.push_back(*name);
    for (const std::string* name : {&o.report, &o.fragments, &o.png})
        if (!name->empty()) outputNames.push_back(*name);
    OutputFiles::checkDistinct(inputs, outputNames);

    // 1. The configuration, with the overrides, checked as a whole.
    IniFile ini = o.config.empty() ? IniFile("default.ini", kDefaultIni) : IniFile::fromFile(o.config);
    for (const std::string& assignment : o.sets) ini.applyOverride(assignment);
    ini.check();

    // 2. The input files: readable, well-formed, all of the image's size.
    const HrawShape image = checkHraw(o.image, "image");
    if (!o.mask.empty()) checkMap(o.mask, "mask", image);
    if (!o.init.empty()) checkMap(o.init, "initial segmentation", image);
    if (!o.gt.empty()) checkMap(o.gt, "ground truth", image);

    // 3. What the settings allow.
    const std::unique_ptr<DHC_SET> settings = readSettings(ini);
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
    if (!o.fragments.empty() && !fragmentOutput)
        throw InputError(kExitInput, "--fragments needs Fragmentation=1 and SplitwiseDisconnect=0");

    // 4. The outputs, created empty under temporary names before the long part.
    OutputFiles outputs;
    const OutputFiles::Output labelsOut = outputs.add(o.output);
    const OutputFiles::Output reportOut = o.report.empty() ? OutputFiles::Output() : outputs.add(o.report);
    const OutputFiles::Output fragmentsOut =
        o.fragments.empty() ? OutputFiles::Output() : outputs.add(o.fragments);
    const OutputFiles::Output pngOut = o.png.empty() ? OutputFiles::Output() : outputs.add(o.png);

    // 5. The region of interest, exactly as the gateway builds it; the input
    // planes go as soon as the core holds its copies.
    dhc::PreparedRun run;
    {
        Cube cube(o.image);
        std::unique_ptr<Cube> mask, init, gt;
        if (!o.mask.empty()) mask = std::make_unique<Cube>(o.mask);
        if (!o.init.empty()) init = std::make_unique<Cube>(o.init);
        if (supervised) gt = std::make_unique<Cube>(o.gt);
        dhc::RunNames names;
        names.gt = "ground truth \"" + o.gt + "\"";
        run = dhc::prepareRun(cube.rows, cube.cols, cube.bands, cube.data, mask ? mask->data[0] : nullptr,
                              init ? init->data[0] : nullptr, gt ? gt->data[0] : nullptr, *settings, names);
    }

    // 6. The run.
    if (!o.quiet) {
        std::cerr << "dhc: segmenting \"" << o.image << "\": " << image.rows << " x " << image.cols << ", "
                  << image.bands << (image.bands == 1 ? " band, " : " bands, ") << run.roi->count
                  << " pixels in the region of interest\n";
        DHC::setProgress([](int leaves, int label) {
            std::cerr << "dhc: split region " << label << ", " << leaves << " leaves" << std::endl;
        });
    } else {
        DHC::setProgress(nullptr);
    }
    DHC_OUT out = dhc::runSegmentation(run, *settings);
    const int points = run.roi->count;
    // Like the gateway, let the inputs go before the outputs are made.
    run = dhc::PreparedRun();
    if (out.labelRoi == nullptr || out.labelRoi->count != points)
        throw InputError(kExitInput, "the segmentation produced no label map");

    // 7. The outputs, then the renames.
    std::vector<int> labels = dhc::fullFrame(*out.labelRoi, image.rows, image.cols);
    writeMap(labelsOut, labels, image.rows, image.cols);
    if (reportOut.fd >= 0) {
        std::ostringstream report;
        out.dhc->printReport(report);
        if (!report) throw InputError(kExitInput, "cannot make the report");
        OutputFiles::writeAll(reportOut, report.str());
    }
    if (fragmentsOut.fd >= 0) {
        if (out.fragRoi == nullptr) throw InputError(kExitInput, "the segmentation produced no fragment map");
        std::vector<int> fragments = dhc::fullFrame(*out.fragRoi, image.rows, image.cols);
        writeMap(fragmentsOut, fragments, image.rows, image.cols);
    }
    if (pngOut.fd >= 0) writeLabelPng(pngOut.fd, o.png, labels, image.rows, image.cols);
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
