#include "Segment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <memory>
#include <set>
#include <vector>

#include "CliError.h"
#include "DefaultIni.h"
#include "IniFile.h"
#include "Inputs.h"
#include "LabelPng.h"
#include "OutputFiles.h"
#include "data/ImageFile.h"
#include "data/ROI.h"
#include "driver/DHC.h"
#include "driver/DHC_IN.h"
#include "driver/DHC_OUT.h"
#include "settings/DHC_SET.h"
#include "settings/FileName.h"

namespace {

using LabelRoi = ROI<int, xy>;

// A cube read by ImageFile, freed on scope exit.
struct Cube {
    int*** data = nullptr;
    int bands = 0, rows = 0, cols = 0;
    explicit Cube(const std::string& path) { data = ImageFile<int>::readHRawInt32(path, bands, rows, cols); }
    Cube(int r, int c, int value) : data(ImageFile<int>::newCube(1, r, c)), bands(1), rows(r), cols(c) {
        for (int i = 0; i < r; ++i)
            for (int j = 0; j < c; ++j) data[0][i][j] = value;
    }
    ~Cube() { ImageFile<int>::deleteCube(data, bands, rows); }
    Cube(const Cube&) = delete;
    Cube& operator=(const Cube&) = delete;
};

// The library reads its settings from a file: the checked configuration goes
// to a temporary file whose name stays within the reader's name limit.
std::unique_ptr<DHC_SET> readSettings(const IniFile& ini) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/dhc-ini-XXXXXX";
    if (pattern.size() > dhc::kFileNameLimit) pattern = "/tmp/dhc-ini-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0)
        throw CliError(kExitInput, "cannot create a temporary file: " + std::string(std::strerror(errno)));
    const std::string text = ini.text();
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0) {
            const int err = errno;
            ::close(fd);
            ::unlink(name.data());
            throw CliError(kExitInput, "cannot write a temporary file: " + std::string(std::strerror(err)));
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    auto settings = std::make_unique<DHC_SET>(std::string(name.data()));
    ::unlink(name.data());
    return settings;
}

// The full-frame map of one value per ROI point, 0 elsewhere: point k lies at
// (x + minRow, y + minCol), as the gateway expands its results.
std::vector<int> fullFrame(const LabelRoi& values, int rows, int cols) {
    std::vector<int> plane(static_cast<size_t>(rows) * cols, 0);
    for (int k = 0; k < values.count; ++k) {
        const size_t r = static_cast<size_t>(values.coords[k].x) + static_cast<size_t>(values.minRow);
        const size_t c = static_cast<size_t>(values.coords[k].y) + static_cast<size_t>(values.minCol);
        plane[r * static_cast<size_t>(cols) + c] = values.data[static_cast<size_t>(k) * values.bands];
    }
    return plane;
}

// Writes a one-band hraw map and makes sure all of it reached the file.
void writeMap(const std::string& path, const std::string& target, std::vector<int>& plane, int rows,
              int cols) {
    std::vector<int*> rowPointers(static_cast<size_t>(rows));
    for (int r = 0; r < rows; ++r)
        rowPointers[static_cast<size_t>(r)] = &plane[static_cast<size_t>(r) * cols];
    ImageFile<int>::writeHRawInt32(path, rowPointers.data(), rows, cols);
    struct stat st;
    const long long expected = 12 + 4LL * rows * cols;
    if (::stat(path.c_str(), &st) != 0 || st.st_size != expected)
        throw CliError(kExitInput, "cannot write \"" + target + "\" (file system full?)");
}

int distinctNonZero(const LabelRoi& roi) {
    std::set<int> labels;
    for (int k = 0; k < roi.count; ++k)
        if (roi.data[k] != 0) labels.insert(roi.data[k]);
    return static_cast<int>(labels.size());
}

}  // namespace

int runSegment(const SegmentOptions& o) {
    const auto start = std::chrono::steady_clock::now();

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
        throw CliError(kExitInput, "supervised mode (SupervisedMode=1) needs a ground truth: --gt GT.hraw");
    if (!supervised && !o.gt.empty())
        throw CliError(kExitInput,
                       "--gt is used only in supervised mode (set SEGM_MAIN_CONFIGURATION.SupervisedMode=1)");
    // The same rule as the gateway's: no tree outputs once the map has been cut into pieces.
    const bool treeOutput = !settings->fragmentation && (supervised || !settings->splitwiseDisconnect);
    const bool fragmentOutput = settings->fragmentation && !settings->splitwiseDisconnect;
    if (!o.report.empty() && !treeOutput)
        throw CliError(kExitInput, "--report is not available with Fragmentation=1 or SplitwiseDisconnect=1");
    if (!o.fragments.empty() && !fragmentOutput)
        throw CliError(kExitInput, "--fragments needs Fragmentation=1 and SplitwiseDisconnect=0");

    // 4. The outputs, created empty under temporary names before the long part.
    OutputFiles outputs;
    const std::string labelsTmp = outputs.add(o.output);
    const std::string reportTmp = o.report.empty() ? std::string() : outputs.add(o.report);
    const std::string fragmentsTmp = o.fragments.empty() ? std::string() : outputs.add(o.fragments);
    const std::string pngTmp = o.png.empty() ? std::string() : outputs.add(o.png);

    // 5. The region of interest, exactly as the gateway builds it: no initial
    // segmentation means every pixel labelled 1, no mask means init > 0, and
    // the data ROI selects mask value 1 in shuffled order.
    std::unique_ptr<LabelRoi> roi, initRoi, gtRoi;
    {
        Cube cube(o.image);
        const int rows = cube.rows, cols = cube.cols;
        std::unique_ptr<Cube> init =
            o.init.empty() ? std::make_unique<Cube>(rows, cols, 1) : std::make_unique<Cube>(o.init);
        std::unique_ptr<Cube> mask;
        if (!o.mask.empty()) {
            mask = std::make_unique<Cube>(o.mask);
        } else {
            mask = std::make_unique<Cube>(rows, cols, 0);
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < cols; ++c) mask->data[0][r][c] = init->data[0][r][c] > 0 ? 1 : 0;
        }
        roi.reset(buildRoi(rows, cols, cube.bands, cube.data, mask->data[0], 1, true));
        if (roi->count == 0)
            throw CliError(kExitInput,
                           o.mask.empty()
                               ? "the region of interest is empty: no pixel has a positive initial label"
                               : "the region of interest is empty: no mask value is 1");
        if (supervised) {
            Cube gt(o.gt);
            gtRoi.reset(roi->extractLabROI(gt.data[0], 0, true));
        } else {
            initRoi.reset(roi->extractLabROI(init->data[0], 0, true));
        }
    }
    if (supervised) {
        const int classes = distinctNonZero(*gtRoi);
        if (classes != settings->numberOfClasses)
            throw CliError(kExitInput, "ground truth \"" + o.gt + "\" holds " + std::to_string(classes) +
                                           (classes == 1 ? " class" : " classes") +
                                           " (distinct non-zero labels) in the region of interest, but "
                                           "NumberOfClasses is " +
                                           std::to_string(settings->numberOfClasses));
    }

    // 6. The run.
    if (!o.quiet) {
        std::cerr << "dhc: segmenting \"" << o.image << "\": " << image.rows << " x " << image.cols << ", "
                  << image.bands << (image.bands == 1 ? " band, " : " bands, ") << roi->count
                  << " pixels in the region of interest\n";
        DHC::setProgress([](int leaves, int label) {
            std::cerr << "dhc: split region " << label << ", " << leaves << " leaves" << std::endl;
        });
    } else {
        DHC::setProgress(nullptr);
    }
    DHC_IN in;
    in.mode = supervised ? 1 : 0;
    in.source = 0;
    in.roi = roi.get();
    in.settings = settings.get();
    in.initLabels = initRoi.get();
    in.gt = gtRoi.get();
    DHC_OUT out = DHC::dhc(in);
    const int points = roi->count;
    // Like the gateway, let the inputs go before the outputs are made.
    roi.reset();
    initRoi.reset();
    gtRoi.reset();
    if (out.labelRoi == nullptr || out.labelRoi->count != points)
        throw CliError(kExitInput, "the segmentation produced no label map");

    // 7. The outputs, then the renames.
    std::vector<int> labels = fullFrame(*out.labelRoi, image.rows, image.cols);
    writeMap(labelsTmp, o.output, labels, image.rows, image.cols);
    if (!reportTmp.empty()) out.dhc->printReport(reportTmp);
    if (!fragmentsTmp.empty()) {
        if (out.fragRoi == nullptr) throw CliError(kExitInput, "the segmentation produced no fragment map");
        std::vector<int> fragments = fullFrame(*out.fragRoi, image.rows, image.cols);
        writeMap(fragmentsTmp, o.fragments, fragments, image.rows, image.cols);
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
