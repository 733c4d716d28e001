// dhc._dhc: the compiled half of the Python package.
//
// A thin layer over src/frontend: the settings go through the tool's
// configuration check, the region of interest is built by prepareRun, the run
// is runSegmentation, and the tree is handed out through TreeOutput.  The
// Python half (dhc/__init__.py) checks and converts the arrays and wraps the
// results; this file only sees int32 arrays whose last axis is contiguous.
//
// The core keeps process-wide state (the fatal handler, the progress hook, the
// output stream, the shuffle's random sequence): runs are serialised by one
// mutex, taken after the GIL is released so that a waiting thread never holds
// the GIL.  A run started from a progress callback would wait for that mutex
// on the thread that holds it: it is refused instead.
//
// Rasters are read and written through src/io, the tool's own GDAL code, and
// floating-point arrays become integers through the tool's scaling rule.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <cmath>
#include <climits>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <tuple>
#include <vector>

#include "driver/DHC.h"
#include "driver/DHC_OUT.h"
#include "data/xy.h"
#include "frontend/HostGuard.h"
#include "frontend/IniFile.h"
#include "base/InputError.h"
#include "frontend/Scaling.h"
#include "frontend/Segmentation.h"
#include "frontend/SettingsCheck.h"
#include "frontend/TreeOutput.h"
#include "hierarchy/Hierarchy.h"
#include "hierarchy/HtmlReport.h"
#include "hierarchy/LabelColours.h"
#include "hierarchy/RegionFields.h"
#include "hierarchy/TreeJson.h"
#include "io/Raster.h"
#include "io/RasterOutput.h"
#include "model/Labelling.h"
#include "model/Model.h"
#include "model/ModelFromRun.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "settings/SettingsTable.h"

namespace py = pybind11;

namespace {


// SECTION, Key, value text, origin named in messages (e.g. "settings.beta_max").
using Entry = std::tuple<std::string, std::string, std::string, std::string>;

using dhc::FatalCondition;

// The progress callable raised (or a signal arrived): the Python error is
// kept until the GIL is held again outside the core.
struct CallbackFailed {};

PyObject* g_error = nullptr;  // dhc.Error

std::mutex& runMutex() {
    static std::mutex m;
    return m;
}

// Set on the thread that is calling a progress callable: a run started there
// would wait for the run mutex its own thread holds.
thread_local bool t_inProgress = false;

void refuseReentry(const char* what) {
    if (t_inProgress) {
        PyErr_SetString(PyExc_RuntimeError,
                        (std::string(what) +
                         " cannot be called from a progress callback: the run that called it holds the "
                         "segmenter until it ends; start the next run after dhc.segment returns")
                            .c_str());
        throw py::error_already_set();
    }
}

// The settings record of a run from dhc.Settings entries, checked exactly as
// the tool checks its configuration.  The one place the package validates
// settings; InputError carries the tool's message.
std::unique_ptr<DHC_SET> checkedSettings(const std::vector<Entry>& entries) {
    IniFile ini("dhc.Settings", "");
    for (const Entry& e : entries) ini.assign(std::get<0>(e), std::get<1>(e), std::get<2>(e), std::get<3>(e));
    return readCheckedSettings(ini);
}

// Sends dhc::out() to Python's sys.stdout, one line at a time (the GIL is
// taken for each line; the run itself goes on without it).
class PythonStdoutBuf : public std::streambuf {
  public:
    ~PythonStdoutBuf() override { flushLine(); }
    void flushLine() {
        if (line_.empty()) return;
        py::gil_scoped_acquire gil;
        try {
            py::module_::import("sys").attr("stdout").attr("write")(line_);
        } catch (py::error_already_set&) {
            // No usable sys.stdout: the line is dropped, the run goes on.
        }
        line_.clear();
    }

  protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) return traits_type::not_eof(c);
        line_.push_back(static_cast<char>(c));
        if (c == '\n') flushLine();
        return c;
    }
    int sync() override {
        flushLine();
        return 0;
    }

  private:
    std::string line_;
};

// Installs the package's fatal handler, output stream and progress hook for
// one run (GIL released) and restores the previous ones however the run ends.
class HostGuard {
  public:
    HostGuard(PyObject* progress, std::unique_ptr<py::error_already_set>& callbackError, bool verbose = true)
        : console_(verbose ? &buf_ : nullptr), host_(console_) {
        // Not verbose: the stream has no buffer and drops the segmenter's lines.
        // The hook runs without the GIL; it takes it, lets pending signals
        // (Ctrl-C) stop the run and calls the progress callable.
        DHC::setProgress([progress, &callbackError](int leaves, int label) {
            py::gil_scoped_acquire gil;
            try {
                if (PyErr_CheckSignals() != 0) throw py::error_already_set();
                if (progress != nullptr) {
                    t_inProgress = true;
                    struct Reset {
                        ~Reset() { t_inProgress = false; }
                    } reset;
                    py::handle{progress}(leaves, label);
                }
            } catch (py::error_already_set& e) {
                callbackError = std::make_unique<py::error_already_set>(std::move(e));
                throw CallbackFailed{};
            }
        });
    }
    ~HostGuard() {
        DHC::setProgress(nullptr);
        console_.flush();
        buf_.flushLine();
    }
    HostGuard(const HostGuard&) = delete;
    HostGuard& operator=(const HostGuard&) = delete;

  private:
    PythonStdoutBuf buf_;
    std::ostream console_;
    dhc::HostGuard host_;  // declared last: restores the handler and stream before the console goes
};

// Row pointers into an int32 array whose last axis is contiguous: no copy.
struct RowPointers {
    std::vector<int*> rows;
    std::vector<int**> bands;
};

RowPointers rowPointers(const py::array& a, py::ssize_t nBands, py::ssize_t nRows) {
    RowPointers p;
    const bool cube = a.ndim() == 3;
    char* base = static_cast<char*>(const_cast<void*>(a.data()));
    const py::ssize_t bandStride = cube ? a.strides(0) : 0;
    const py::ssize_t rowStride = a.strides(cube ? 1 : 0);
    p.rows.resize(static_cast<size_t>(nBands * nRows));
    p.bands.resize(static_cast<size_t>(nBands));
    for (py::ssize_t b = 0; b < nBands; ++b) {
        for (py::ssize_t r = 0; r < nRows; ++r)
            p.rows[static_cast<size_t>(b * nRows + r)] =
                reinterpret_cast<int*>(base + b * bandStride + r * rowStride);
        p.bands[static_cast<size_t>(b)] = &p.rows[static_cast<size_t>(b * nRows)];
    }
    return p;
}

// What dhc/__init__.py promises: int32, the given rank, last axis contiguous.
void requireLayout(const py::array& a, int ndim, const char* name) {
    if (!py::isinstance<py::array_t<int32_t>>(a) || a.ndim() != ndim ||
        (a.shape(ndim - 1) > 1 && a.strides(ndim - 1) != static_cast<py::ssize_t>(sizeof(int32_t))))
        throw py::value_error(std::string("dhc._dhc: ") + name + " must be an int32 array of rank " +
                              std::to_string(ndim) + " with a contiguous last axis (use dhc.segment)");
}

// An optional (rows, cols) plane (None: an empty array), checked as above.
py::array optionalPlane(const py::object& o, const char* name, py::ssize_t rows, py::ssize_t cols) {
    if (o.is_none()) return py::array();
    py::array a = py::reinterpret_borrow<py::array>(o);
    requireLayout(a, 2, name);
    if (a.shape(0) != rows || a.shape(1) != cols)
        throw py::value_error(std::string("dhc._dhc: ") + name + " is not of the image's size");
    return a;
}

// A numpy array that takes over a vector's storage.
py::array_t<int32_t> adopt(std::vector<int>&& values, std::vector<py::ssize_t> shape) {
    auto* owned = new std::vector<int>(std::move(values));
    py::capsule free(owned, [](void* p) { delete static_cast<std::vector<int>*>(p); });
    return py::array_t<int32_t>(shape, owned->data(), free);
}

template <typename T>
py::array_t<T> vectorArray(const T* values, int n) {
    py::array_t<T> a(n > 0 ? n : 0);
    for (int i = 0; i < n; ++i) a.mutable_at(i) = values[i];
    return a;
}

// Everything a run hands back, built without the GIL.

struct RunResult {
    std::vector<int> labels, fragments;
    bool hasFragments = false, hasTree = false;
    dhc::SplitSummary summary;
    std::shared_ptr<dhc::Hierarchy> hierarchy;  // every region, and every cut of the tree
    std::string treeJson;                       // the tree as the tool's --tree writes it
    std::string modelJson;                      // the model as the tool's --model writes it
};

// A region's fields, as the rows of the region fields name them.
py::dict regionDict(const dhc::RegionNode& d) {
    py::dict out;
    for (const dhc::RegionField& f : dhc::regionFields()) {
        if (f.python == nullptr) continue;
        switch (f.kind) {
            case dhc::RegionFieldKind::Int:
                out[f.python] = static_cast<long long>(f.number(d));
                break;
            case dhc::RegionFieldKind::Flag:
                out[f.python] = f.number(d) != 0;
                break;
            case dhc::RegionFieldKind::Real:
                out[f.python] = f.number(d);
                break;
            case dhc::RegionFieldKind::Ints: {
                const std::vector<int>& v = f.ints(d);
                out[f.python] = vectorArray(v.data(), static_cast<int>(v.size()));
                break;
            }
            case dhc::RegionFieldKind::Reals: {
                const std::vector<double>& v = f.reals(d);
                out[f.python] =
                    v.empty() ? py::object(py::none()) : py::object(vectorArray(v.data(), static_cast<int>(v.size())));
                break;
            }
            case dhc::RegionFieldKind::Matrix: {
                const std::vector<std::vector<double>>& m = f.matrix(d);
                if (m.empty()) {
                    out[f.python] = py::none();
                    break;
                }
                const py::ssize_t n = static_cast<py::ssize_t>(m.size());
                py::array_t<double> a({n, n});
                for (py::ssize_t i = 0; i < n; ++i)
                    std::copy(m[static_cast<size_t>(i)].begin(), m[static_cast<size_t>(i)].end(), a.mutable_data() + i * n);
                out[f.python] = a;
                break;
            }
        }
    }
    return out;
}

// dhc.Error for a fatal condition; called with the GIL held.
[[noreturn]] void raiseFatal(const FatalCondition& f) {
    py::object error = py::reinterpret_borrow<py::object>(g_error)(
        f.message.empty() ? "fatal condition of the segmenter (status " + std::to_string(f.status) + ")"
                          : f.message);
    error.attr("status") = f.status;
    PyErr_SetObject(g_error, error.ptr());
    throw py::error_already_set();
}

py::dict segment(const py::array& image, const py::object& mask, const py::object& init, const py::object& gt,
                 const std::vector<Entry>& entries, const py::object& progress, double threads, bool verbose) {
    refuseReentry("dhc.segment");
    requireLayout(image, 3, "image");
    const py::ssize_t bands = image.shape(0), rows = image.shape(1), cols = image.shape(2);
    if (bands < 1 || rows < 1 || cols < 1) throw py::value_error("image is empty");
    if (rows > kMaxImageSide || cols > kMaxImageSide)
        throw py::value_error("image has a side above " + std::to_string(kMaxImageSide) + " pixels");
    auto plane = [&](const py::object& o, const char* name) { return optionalPlane(o, name, rows, cols); };
    const py::array maskArray = plane(mask, "mask"), initArray = plane(init, "init"),
                    gtArray = plane(gt, "gt");

    std::unique_ptr<DHC_SET> settings = checkedSettings(entries);
    const int nThreads = dhc::checkThreads(threads, "threads");
    dhc::requireGroundTruth(settings->supervisedMode, !gt.is_none(), "supervised_mode=True", "gt=...");
    if (!settings->supervisedMode && !gt.is_none())
        throw py::value_error("gt is used only in supervised mode (set supervised_mode=True)");

    // Refused before the run when its estimated peak exceeds the memory available.
    dhc::checkImageSize(static_cast<long long>(rows), static_cast<long long>(cols), static_cast<long long>(bands),
                        "image");
    RowPointers cube = rowPointers(image, bands, rows);
    RowPointers maskRows, initRows, gtRows;
    if (!mask.is_none()) maskRows = rowPointers(maskArray, 1, rows);
    if (!init.is_none()) initRows = rowPointers(initArray, 1, rows);
    if (!gt.is_none()) gtRows = rowPointers(gtArray, 1, rows);
    auto first = [](RowPointers& p) { return p.bands.empty() ? nullptr : p.bands[0]; };

    dhc::RunNames names;
    names.gt = "gt";
    names.classCount = "number_of_classes";
    const int nRows = static_cast<int>(rows), nCols = static_cast<int>(cols);
    std::unique_ptr<py::error_already_set> callbackError;
    RunResult result;
    try {
        py::gil_scoped_release noGil;
        std::lock_guard<std::mutex> lock(runMutex());
        HostGuard guard(progress.is_none() ? nullptr : progress.ptr(), callbackError, verbose);
        dhc::PreparedRun run =
            dhc::prepareRun(nRows, nCols, static_cast<int>(bands), cube.bands.data(), first(maskRows),
                            first(initRows), first(gtRows), *settings, names, nThreads);
        const int points = run.roi->count;
        DHC_OUT out = dhc::runSegmentation(run, *settings, nThreads);
        run = dhc::PreparedRun();
        if (out.labelRoi == nullptr || out.labelRoi->count != points || out.dhc == nullptr)
            throw FatalCondition{-1, "the segmentation produced no label map"};
        result.labels = dhc::fullFrame(*out.labelRoi, nRows, nCols);
        result.hasFragments = dhc::hasFragmentOutput(*settings) && out.fragRoi != nullptr;
        if (result.hasFragments) result.fragments = dhc::fullFrame(*out.fragRoi, nRows, nCols);
        result.hasTree = dhc::hasTreeOutput(*settings);
        if (result.hasTree) {
            const dhc::RegionReports reports(*out.dhc);
            result.summary = dhc::summarizeSplits(*out.dhc, reports);
            result.hierarchy = std::make_shared<dhc::Hierarchy>(dhc::Hierarchy::fromRun(out, *settings));
            result.treeJson = dhc::treeJsonText(*result.hierarchy, *settings, "dhc (Python)", DHC_VERSION);
            // NumPy images are integers as they are: no scale, no nodata value.
            result.modelJson = dhc::modelJsonText(
                dhc::modelFromRun(out, *settings, dhc::ValueConversion(), "dhc (Python)", DHC_VERSION));
        }
    } catch (const FatalCondition& f) {
        raiseFatal(f);
    } catch (const CallbackFailed&) {
        throw std::move(*callbackError);
    }

    py::dict out;
    const std::vector<py::ssize_t> frame{rows, cols};
    out["labels"] = adopt(std::move(result.labels), frame);
    out["fragments"] =
        result.hasFragments ? py::object(adopt(std::move(result.fragments), frame)) : py::none();
    if (result.hasTree) {
        const dhc::SplitSummary& s = result.summary;
        out["classes"] = vectorArray(s.classes.data(), static_cast<int>(s.classes.size()));
        out["split_order"] = vectorArray(s.splitOrder.data(), static_cast<int>(s.splitOrder.size()));
        py::array_t<int32_t> offspring(
            {static_cast<py::ssize_t>(s.splitOrder.size()), static_cast<py::ssize_t>(s.classes.size())});
        std::copy(s.offspring.begin(), s.offspring.end(), offspring.mutable_data());
        out["offspring"] = offspring;
        py::list regions;
        for (const dhc::RegionNode& d : result.hierarchy->nodes()) regions.append(regionDict(d));
        out["regions"] = regions;
        out["hierarchy"] = py::cast(result.hierarchy);
        out["tree"] = result.treeJson;
        out["model"] = result.modelJson;
    } else {
        for (const char* key : {"classes", "split_order", "offspring", "regions", "hierarchy", "tree", "model"})
            out[key] = py::none();
    }
    return out;
}

// Raises the core's fatal condition through the package's handler, as a run
// would: the tests' way to a fatal condition, which checked settings and
// inputs no longer reach.
void fatalProbe(int status, const std::string& message) {
    refuseReentry("dhc._dhc._fatal");
    try {
        py::gil_scoped_release noGil;
        std::lock_guard<std::mutex> lock(runMutex());
        std::unique_ptr<py::error_already_set> unused;
        HostGuard guard(nullptr, unused);
        dhc::fatal(status, message);
    } catch (const FatalCondition& f) {
        raiseFatal(f);
    }
}

// A model's text checked and in its canonical form.
std::string checkModel(const std::string& text, const std::string& name) {
    return dhc::modelJsonText(dhc::parseModel(text, name));
}

// Labels of an int32 (bands, rows, cols) block whose first pixel is (row,
// col) of its image; valid: optional uint8 (rows, cols), non-zero = label.
py::array_t<int32_t> applyModel(const py::array& image, const py::object& valid, const std::string& modelText,
                                int originRow, int originCol, double threads) {
    requireLayout(image, 3, "image");
    const py::ssize_t bands = image.shape(0), rows = image.shape(1), cols = image.shape(2);
    if (rows > kMaxImageSide || cols > kMaxImageSide)
        throw py::value_error("image has a side above " + std::to_string(kMaxImageSide) + " pixels");
    const dhc::Model model = dhc::parseModel(modelText, "model");
    if (bands != model.bands)
        throw py::value_error("the model has " + std::to_string(model.bands) + " bands but the image has " +
                              std::to_string(bands));
    py::array_t<uint8_t, py::array::c_style> mask;
    if (!valid.is_none()) {
        mask = py::array_t<uint8_t, py::array::c_style>::ensure(valid);
        if (!mask || mask.ndim() != 2 || mask.shape(0) != rows || mask.shape(1) != cols)
            throw py::value_error("dhc._dhc: valid must be a uint8 array of the image's rows and columns");
    }
    const int nThreads = dhc::checkThreads(threads, "threads");
    const dhc::Labeller labeller(model);
    RowPointers cube = rowPointers(image, bands, rows);
    std::vector<int> labels(static_cast<size_t>(rows) * static_cast<size_t>(cols));
    {
        py::gil_scoped_release noGil;
        labeller.label(cube.bands.data(), valid.is_none() ? nullptr : mask.data(), static_cast<int>(rows),
                       static_cast<int>(cols), originRow, originCol, labels.data(), nThreads);
    }
    return adopt(std::move(labels), std::vector<py::ssize_t>{rows, cols});
}

void checkSettings(const std::vector<Entry>& entries) {
    checkedSettings(entries);
}

// Strings of a checked configuration, read with the library's number rules.
long parseLong(const std::string& text) {
    return std::strtol(text.c_str(), nullptr, 10);
}

// The values of a checked ini file, by "SECTION.Key"; keys absent from the
// file are absent from the dict.
py::dict readIni(const std::string& path) {
    IniFile ini = [&] {
        try {
            return IniFile::fromFile(path);
        } catch (const InputError& e) {
            PyErr_SetString(PyExc_OSError, e.what());
            throw py::error_already_set();
        }
    }();
    ini.check();
    py::dict out;
    for (const dhc::SettingRow& s : dhc::settingsTable()) {
        std::string text;
        if (!ini.value(s.section, s.key, text)) continue;
        const std::string name = std::string(s.section) + "." + s.key;
        switch (s.kind) {
            case dhc::SettingKind::Flag:
                out[name.c_str()] = parseLong(text) != 0;
                break;
            case dhc::SettingKind::Int:
                out[name.c_str()] = parseLong(text);
                break;
            case dhc::SettingKind::Double:
                out[name.c_str()] = std::strtod(text.c_str(), nullptr);
                break;
            case dhc::SettingKind::IntArray: {
                std::string inner = text.substr(text.find('{') + 1);
                inner = inner.substr(0, inner.rfind('}'));
                std::istringstream items(inner);
                py::list values;
                std::string item;
                while (items >> item) values.append(parseLong(item));
                out[name.c_str()] = values;
                break;
            }
        }
    }
    return out;
}

// The report page of a run: the image (a checked (bands, rows, cols) int32
// array with contiguous rows), its bands as red, green, blue (from 1; empty
// for the default), settings as JSON text, timings in seconds.
std::string htmlReport(const dhc::Hierarchy& tree, const py::array_t<int32_t>& image,
                       const std::vector<long long>& rgb, const std::string& title, const std::string& settings,
                       const std::vector<std::pair<std::string, double>>& timings, double pixelArea,
                       const std::string& stoppingReason, const std::string& version) {
    if (image.ndim() != 3 || image.shape(1) != tree.rows() || image.shape(2) != tree.cols())
        throw InputError(kExitInput, "the image is not the one this result was segmented from");
    const int bands = static_cast<int>(image.shape(0));
    dhc::ReportRun run;
    run.title = title;
    run.program = "dhc (Python)";
    run.version = version;
    run.settings = nlohmann::ordered_json::parse(settings);
    run.rgb = rgb.empty() ? dhc::defaultRgbBands(bands) : dhc::checkRgbBands(rgb, bands, "rgb");
    run.bands = bands;
    if (!(pixelArea >= 0) || !std::isfinite(pixelArea))
        throw InputError(kExitInput, "pixel_area must be a positive number of square metres (or None)");
    run.pixelArea = pixelArea;
    run.stoppingReason = stoppingReason;
    run.timings = timings;
    const auto view = image.unchecked<3>();
    dhc::ImageView input;
    input.bands = bands;
    input.rows = tree.rows();
    input.cols = tree.cols();
    input.value = [&view](int b, int r, int c) { return view(b, r, c); };
    const dhc::RgbImage picture = dhc::falseColour(input, run.rgb);
    return dhc::htmlReport(tree, picture, run);
}

// A float64 (bands, rows, cols) C-contiguous cube as the int32 cube the
// segmenter takes, by the tool's scaling rule: scale when given (> 0), else
// the automatic one from the ranges of the valid pixels (valid: uint8 (rows,
// cols), C-contiguous, non-zero for a pixel that holds data in every band;
// the others become 0).  Returns (cube, scale).
py::tuple scaleImage(const py::array_t<double, py::array::c_style>& values,
                     const py::array_t<uint8_t, py::array::c_style>& valid, const py::object& scale) {
    if (values.ndim() != 3 || valid.ndim() != 2 || valid.shape(0) != values.shape(1) ||
        valid.shape(1) != values.shape(2))
        throw py::value_error(
            "dhc._dhc: scale_image needs a (bands, rows, cols) cube and a (rows, cols) plane");
    const py::ssize_t bands = values.shape(0), rows = values.shape(1), cols = values.shape(2);
    const size_t plane = static_cast<size_t>(rows) * static_cast<size_t>(cols);
    const double* v = values.data();
    const uint8_t* ok = valid.data();
    double factor = 1;
    if (!scale.is_none()) {
        factor = scale.cast<double>();
    } else {
        std::vector<dhc::ValueRange> ranges(static_cast<size_t>(bands));
        for (py::ssize_t b = 0; b < bands; ++b)
            for (size_t k = 0; k < plane; ++k)
                if (ok[k]) ranges[static_cast<size_t>(b)].add(v[static_cast<size_t>(b) * plane + k]);
        factor = dhc::automaticScale(ranges);
    }
    py::array_t<int32_t> cube({bands, rows, cols});
    int32_t* out = cube.mutable_data();
    for (py::ssize_t b = 0; b < bands; ++b) {
        const std::string band = "image band " + std::to_string(b + 1);
        const dhc::ValueOrigin origin{band, "scale="};
        const size_t offset = static_cast<size_t>(b) * plane;
        for (py::ssize_t r = 0; r < rows; ++r)
            for (py::ssize_t c = 0; c < cols; ++c) {
                const size_t k = static_cast<size_t>(r) * static_cast<size_t>(cols) + static_cast<size_t>(c);
                out[offset + k] = ok[k] ? dhc::toInteger(v[offset + k], true, factor, static_cast<int>(r),
                                                         static_cast<int>(c), origin)
                                        : 0;
            }
    }
    return py::make_tuple(cube, factor);
}

// The mask of a run whose image has nodata pixels, built by the tool's rule
// from the (optional) checked mask and init planes.
py::array_t<int32_t> maskWithoutNodata(const py::object& mask, const py::object& init,
                                       const py::array_t<uint8_t, py::array::c_style>& valid) {
    if (valid.ndim() != 2) throw py::value_error("dhc._dhc: valid must be a (rows, cols) plane");
    const py::ssize_t rows = valid.shape(0), cols = valid.shape(1);
    auto plane = [&](const py::object& o, const char* name) { return optionalPlane(o, name, rows, cols); };
    const py::array maskArray = plane(mask, "mask"), initArray = plane(init, "init");
    RowPointers maskRows, initRows;
    if (!mask.is_none()) maskRows = rowPointers(maskArray, 1, rows);
    if (!init.is_none()) initRows = rowPointers(initArray, 1, rows);
    const std::vector<uint8_t> ok(valid.data(), valid.data() + valid.size());
    std::vector<int> out = dhc::maskWithoutNodata(static_cast<int>(rows), static_cast<int>(cols),
                                                  mask.is_none() ? nullptr : maskRows.bands[0],
                                                  init.is_none() ? nullptr : initRows.bands[0], ok);
    return adopt(std::move(out), {rows, cols});
}

// A raster read through src/io as the tool reads its image: the int32 cube,
// the valid pixels (None when every pixel holds data), the georeference, the
// scale of floating-point bands (None without them) and GDAL's driver.
py::dict readRaster(const std::string& path, const py::object& scale, const py::object& nodata) {
    dhc::io::Conversion conversion;
    if (!scale.is_none()) conversion.scale = scale.cast<double>();
    if (!nodata.is_none()) conversion.nodata = nodata.cast<double>();
    dhc::io::Raster r;
    {
        py::gil_scoped_release noGil;
        r = dhc::io::readImage(path, "image", conversion);
    }
    const std::vector<py::ssize_t> shape{r.bands, r.rows, r.cols};
    py::array_t<int32_t> cube(shape);
    int32_t* out = cube.mutable_data();
    for (int b = 0; b < r.bands; ++b)
        for (int row = 0; row < r.rows; ++row)
            std::copy(
                r.cube[b][row], r.cube[b][row] + r.cols,
                out + (static_cast<size_t>(b) * static_cast<size_t>(r.rows) + static_cast<size_t>(row)) *
                          static_cast<size_t>(r.cols));
    py::dict d;
    d["values"] = cube;
    if (r.valid.empty()) {
        d["valid"] = py::none();
    } else {
        py::array_t<bool> valid({static_cast<py::ssize_t>(r.rows), static_cast<py::ssize_t>(r.cols)});
        std::copy(r.valid.begin(), r.valid.end(), valid.mutable_data());
        d["valid"] = valid;
    }
    d["transform"] =
        r.geo.hasTransform
            ? py::object(py::make_tuple(r.geo.transform[0], r.geo.transform[1], r.geo.transform[2],
                                        r.geo.transform[3], r.geo.transform[4], r.geo.transform[5]))
            : py::object(py::none());
    d["crs"] = r.geo.crs;
    d["metadata"] = r.geo.metadata;
    d["scale"] = r.hasFloatBands ? py::object(py::float_(r.scale)) : py::object(py::none());
    d["driver"] = r.driver;
    return d;
}

// The GDAL driver an output name (or format) picks, "" for hraw; the tool's rule.
std::string outputDriver(const std::string& name, const std::string& format) {
    return dhc::io::outputFormat("path", name, format, {}, 1).driver;
}

// Writes a label map through src/io to path (a temporary name; target names
// the file in messages) with the tool's colour table and the georeference.
void writeLabels(const std::string& path, const std::string& target, const std::string& driver,
                 const py::array& labels, const py::object& transform, const std::string& crs,
                 const std::vector<std::string>& metadata) {
    requireLayout(labels, 2, "labels");
    const int rows = static_cast<int>(labels.shape(0)), cols = static_cast<int>(labels.shape(1));
    std::vector<int> plane(static_cast<size_t>(rows) * static_cast<size_t>(cols));
    RowPointers p = rowPointers(labels, 1, rows);
    for (int r = 0; r < rows; ++r)
        std::copy(p.rows[static_cast<size_t>(r)], p.rows[static_cast<size_t>(r)] + cols,
                  plane.begin() + static_cast<std::ptrdiff_t>(r) * cols);
    dhc::io::Georeference geo;
    if (!transform.is_none()) {
        const auto t = transform.cast<std::vector<double>>();
        if (t.size() != 6) throw py::value_error("transform must hold 6 numbers (GDAL's geotransform)");
        geo.hasTransform = true;
        std::copy(t.begin(), t.end(), geo.transform);
    }
    geo.crs = crs;
    geo.metadata = metadata;
    const dhc::io::OutputFormat format = dhc::io::outputFormat("path", target, driver, {}, 1);
    dhc::io::MapInfo info;
    info.geo = geo;
    info.colours = dhc::io::tableColours(plane);
    py::gil_scoped_release noGil;
    dhc::io::writeLabels(path, target, format, dhc::io::LabelPlane(plane, rows, cols), info);
}

}  // namespace

PYBIND11_MODULE(_dhc, m) {
    m.doc() = "Compiled core of the dhc package; use the functions of the dhc package instead.";

    g_error =
        PyErr_NewExceptionWithDoc("dhc.Error",
                                  "A fatal condition of the segmenter.  .status holds its exit status (the\n"
                                  "command-line tool would have ended with it); the call's memory has been\n"
                                  "freed and the next call runs normally.",
                                  PyExc_RuntimeError, nullptr);
    if (g_error == nullptr) throw py::error_already_set();
    m.attr("Error") = py::handle(g_error);

    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const InputError& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
        }
    });

    py::class_<dhc::Hierarchy, std::shared_ptr<dhc::Hierarchy>>(m, "_Hierarchy")
        .def("splits", &dhc::Hierarchy::splits)
        .def("leaves_after", &dhc::Hierarchy::leavesAfter, py::arg("k"))
        .def("splits_for_leaves", &dhc::Hierarchy::splitsForLeaves, py::arg("leaves"))
        .def(
            "cut",
            [](const dhc::Hierarchy& h, int k) {
                return adopt(h.cut(k), std::vector<py::ssize_t>{h.rows(), h.cols()});
            },
            py::arg("k"))
        .def("levels", [](const dhc::Hierarchy& h) {
            return adopt(h.levels(), std::vector<py::ssize_t>{h.splits() + 1, h.rows(), h.cols()});
        });
    m.def("segment", &segment, py::arg("image"), py::arg("mask"), py::arg("init"), py::arg("gt"),
          py::arg("entries"), py::arg("progress"), py::arg("threads"), py::arg("verbose"),
          "Runs one segmentation on checked int32 arrays; returns a dict of results.");
    m.def("html_report", &htmlReport, py::arg("hierarchy"), py::arg("image"), py::arg("rgb"), py::arg("title"),
          py::arg("settings"), py::arg("timings"), py::arg("pixel_area"), py::arg("stopping_reason"),
          py::arg("version"), "The run as a self-contained HTML page (text).");
    m.def("scale_image", &scaleImage, py::arg("values"), py::arg("valid"), py::arg("scale"),
          "Floating-point values as int32 by the tool's scaling rule; returns (cube, scale).");
    m.def("mask_without_nodata", &maskWithoutNodata, py::arg("mask"), py::arg("init"), py::arg("valid"),
          "The mask of a run without the image's nodata pixels, as the tool builds it.");
    m.def("read_raster", &readRaster, py::arg("path"), py::arg("scale"), py::arg("nodata"),
          "Reads an image through the tool's GDAL code; returns a dict.");
    m.def(
        "relabel_consecutive",
        [](const py::array_t<int32_t, py::array::c_style>& labels) {
            std::vector<int> map(labels.data(), labels.data() + labels.size());
            const std::vector<int> classes = dhc::relabelConsecutive(map);
            py::array_t<int32_t> out(std::vector<py::ssize_t>(labels.shape(), labels.shape() + labels.ndim()));
            std::copy(map.begin(), map.end(), out.mutable_data());
            return py::make_tuple(out, classes);
        },
        py::arg("labels"), "Classes numbered 1..K in ascending order of their labels; returns (map, labels).");
    m.def("output_driver", &outputDriver, py::arg("name"), py::arg("format"),
          "The GDAL driver the tool would write name with ('' for hraw).");
    m.def("write_labels", &writeLabels, py::arg("path"), py::arg("target"), py::arg("driver"),
          py::arg("labels"), py::arg("transform"), py::arg("crs"), py::arg("metadata"),
          "Writes a label map through the tool's GDAL code.");
    m.def("_fatal", &fatalProbe, py::arg("status"), py::arg("message") = std::string(),
          "Raises a fatal condition of the core as a run would (for tests).");
    m.def("check_model", &checkModel, py::arg("text"), py::arg("name"),
          "Checks a model's JSON text; returns it in canonical form (ValueError naming `name` otherwise).");
    m.def("apply", &applyModel, py::arg("image"), py::arg("valid"), py::arg("model"), py::arg("origin_row"),
          py::arg("origin_col"), py::arg("threads"),
          "Labels a checked int32 (bands, rows, cols) block with a model's text; returns int32 labels.");
    m.def(
        "label_colours",
        [](int n) {
            py::list out;
            for (int k = 0; k < n; ++k) {
                const Rgb c = labelColour(k);
                out.append(py::make_tuple(c.r, c.g, c.b));
            }
            return out;
        },
        py::arg("n"), "The colours of the first n labels of a label map's picture, in ascending label order.");
    m.attr("label_radius") = dhc::kLabelRadius;
    m.attr("label_sweeps") = dhc::kLabelSweeps;
    m.def("check_settings", &checkSettings, py::arg("entries"),
          "Checks (SECTION, Key, text, origin) entries as the tool checks its configuration.");
    m.def("read_ini", &readIni, py::arg("path"),
          "Reads and checks an ini file; returns its values by 'SECTION.Key'.");
    // The region fields: (attribute of dhc.Region, path in the tree JSON's region or None).
    m.attr("region_fields") = [] {
        py::list fields;
        for (const dhc::RegionField& f : dhc::regionFields())
            if (f.python != nullptr)
                fields.append(py::make_tuple(f.python, f.json == nullptr ? py::object(py::none())
                                                                          : py::object(py::str(f.json))));
        return py::tuple(fields);
    }();
    // The settings table: (attribute, SECTION, Key, kind, default text or None, meaning).
    m.attr("settings_table") = [] {
        py::list table;
        for (const dhc::SettingRow& s : dhc::settingsTable()) {
            const char* kind = s.kind == dhc::SettingKind::Flag     ? "flag"
                               : s.kind == dhc::SettingKind::Int    ? "int"
                               : s.kind == dhc::SettingKind::Double ? "float"
                                                                    : "ints";
            table.append(py::make_tuple(s.attribute, s.section, s.key, kind,
                                        s.defaultText == nullptr ? py::object(py::none())
                                                                 : py::object(py::str(s.defaultText)),
                                        s.meaning));
        }
        return py::tuple(table);
    }();
}
