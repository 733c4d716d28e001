#include "Segment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
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
#include "frontend/SettingsCheck.h"
#include "frontend/Segmentation.h"
#include "hierarchy/Hierarchy.h"
#include "hierarchy/RgbImage.h"
#include "hierarchy/TreeJson.h"
#include "hierarchy/TreePicture.h"
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

// Writes an hraw map of `bands` planes (one after the other in `planes`) and
// makes sure all of it reached the file.
void writeMap(const std::string& path, const std::string& target, std::vector<int>& planes, int rows,
              int cols, int bands = 1) {
    std::vector<std::vector<int*>> rowPointers(static_cast<size_t>(bands), std::vector<int*>(rows));
    std::vector<int**> cube(static_cast<size_t>(bands));
    for (int b = 0; b < bands; ++b) {
        for (int r = 0; r < rows; ++r)
            rowPointers[b][r] = &planes[(static_cast<size_t>(b) * rows + r) * cols];
        cube[b] = rowPointers[b].data();
    }
    ImageFile<int>::writeHRawInt32(path, cube.data(), bands, rows, cols);
    struct stat st;
    const long long expected = 12 + 4LL * bands * rows * cols;
    if (::stat(path.c_str(), &st) != 0 || st.st_size != expected)
        throw InputError(kExitInput, "cannot write \"" + target + "\" (file system full?)");
}

// Writes a text file and makes sure all of it reached the file.
void writeText(const std::string& path, const std::string& target, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) throw InputError(kExitInput, "cannot write \"" + target + "\" (file system full?)");
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

}  // namespace

int runSegment(const SegmentOptions& o) {
    const auto start = std::chrono::steady_clock::now();

    // 1. The configuration, with the overrides, checked as a whole.
    IniFile ini = o.config.empty() ? IniFile("default.ini", kDefaultIni) : IniFile::fromFile(o.config);
    for (const std::string& assignment : o.sets) ini.applyOverride(assignment);
    const std::unique_ptr<DHC_SET> settings = readCheckedSettings(ini);

    // 2. The input files: readable, well-formed, all of the image's size.
    const HrawShape image = checkHraw(o.image, "image");
    dhc::checkImageSize(image.rows, image.cols, image.bands, "image \"" + o.image + "\"");
    if (!o.mask.empty()) checkMap(o.mask, "mask", image);
    if (!o.init.empty()) checkMap(o.init, "initial segmentation", image);
    if (!o.gt.empty()) checkMap(o.gt, "ground truth", image);

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
                                                        {!o.treeSvg.empty(), "--tree-svg"}};
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

    // 4. The outputs, created empty under temporary names before the long part.
    OutputFiles outputs;
    const std::string labelsTmp = outputs.add(o.output);
    const std::string reportTmp = o.report.empty() ? std::string() : outputs.add(o.report);
    const std::string fragmentsTmp = o.fragments.empty() ? std::string() : outputs.add(o.fragments);
    const std::string pngTmp = o.png.empty() ? std::string() : outputs.add(o.png);
    const std::string levelsTmp = o.levels.empty() ? std::string() : outputs.add(o.levels);
    const std::string treeTmp = o.tree.empty() ? std::string() : outputs.add(o.tree);
    const std::string treePngTmp = o.treePng.empty() ? std::string() : outputs.add(o.treePng);
    const std::string treeSvgTmp = o.treeSvg.empty() ? std::string() : outputs.add(o.treeSvg);

    // 5. The region of interest, exactly as the gateway builds it; the input
    // planes go as soon as the core holds its copies.
    dhc::PreparedRun run;
    {
        Cube cube(o.image);
        std::unique_ptr<Cube> mask, init, gt;
        if (!o.mask.empty()) mask = std::make_unique<Cube>(o.mask);
        if (!o.init.empty()) init = std::make_unique<Cube>(o.init);
        if (supervised) gt = std::make_unique<Cube>(o.gt);
        dhc::RunNames runNames;
        runNames.gt = "ground truth \"" + o.gt + "\"";
        runNames.settings = settingNames(ini);
        run =
            dhc::prepareRun(cube.rows, cube.cols, cube.bands, cube.data, mask ? mask->data[0] : nullptr,
                            init ? init->data[0] : nullptr, gt ? gt->data[0] : nullptr, *settings, runNames);
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
    writeMap(labelsTmp, o.output, labels, image.rows, image.cols);
    if (!reportTmp.empty()) out.dhc->printReport(reportTmp);
    if (!fragmentsTmp.empty()) {
        if (out.fragRoi == nullptr) throw InputError(kExitInput, "the segmentation produced no fragment map");
        std::vector<int> fragments = dhc::fullFrame(*out.fragRoi, image.rows, image.cols);
        writeMap(fragmentsTmp, o.fragments, fragments, image.rows, image.cols);
    }
    if (!levelsTmp.empty()) {
        std::vector<int> stack = tree->levels();
        writeMap(levelsTmp, o.levels, stack, image.rows, image.cols, tree->splits() + 1);
    }
    if (!treeTmp.empty()) writeText(treeTmp, o.tree, dhc::treeJsonText(*tree, *settings, "dhc", DHC_VERSION));
    if (!treeSvgTmp.empty()) writeText(treeSvgTmp, o.treeSvg, dhc::treeSvg(*tree));
    if (!treePngTmp.empty()) {
        try {
            dhc::writeTreePng(*tree, treePngTmp);
        } catch (const dhc::WriteError& e) {
            throw InputError(kExitInput, e.what());
        }
    }
    if (!pngTmp.empty()) writeLabelPng(pngTmp, labels, image.rows, image.cols);
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
