// The MATLAB/Octave gateway: [out, summary, reports] = dhc(problem, settings).
// Models (src/model): model = dhc('model_load', path) and
// labels = dhc('apply', data, modelText, roi, threads), behind dhc_model_load
// and dhc_apply.
//
// Converts the problem object's arrays and the settings object, checks them
// and runs the segmentation the way every front end does (SettingsCheck.h,
// Segmentation.h), and turns its result into MATLAB structures.  Every
// resource of a call has one RAII owner, so that an error (a refused input, or
// a fatal condition of the core, which the module turns into a MATLAB error
// instead of ending the session) unwinds cleanly before the error is raised.
// With DHC_MEX_LITERAL_EXIT a fatal condition ends the host process with its
// status instead.

#include <cstdio>
#include <memory>
#include <new>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "data/ROI.h"
#include "data/xy.h"
#include "driver/DHC.h"
#include "driver/DHC_OUT.h"
#include "base/InputError.h"
#include "frontend/HostGuard.h"
#include "frontend/Segmentation.h"
#include "frontend/SettingsCheck.h"
#include "frontend/TreeOutput.h"
#include "hierarchy/RegionFields.h"
#include "mex.h"
#include "mex/mxGrip.h"
#include "model/Labelling.h"
#include "model/Model.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "mex/dhcConfig.h"
#include "workspace/WSReport.h"

namespace {

const char* const kUsage = "Wrong in/out arguments. Check usage!";


using dhc::FatalCondition;

// Sends dhc::out() to the MATLAB/Octave console.
class MexConsoleBuf : public std::streambuf {
  protected:
    int overflow(int c) override {
        if (c != traits_type::eof()) mexPrintf("%c", static_cast<char>(c));
        return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        mexPrintf("%.*s", static_cast<int>(n), s);
        return n;
    }
};

// The module's console, and its fatal handler for one call (with
// DHC_MEX_LITERAL_EXIT a fatal condition ends the host process instead).
class HostGuard {
  public:
    HostGuard() : console_(&buf_), host_(console_, kUnwind) {}

  private:
#ifdef DHC_MEX_LITERAL_EXIT
    static constexpr bool kUnwind = false;
#else
    static constexpr bool kUnwind = true;
#endif
    MexConsoleBuf buf_;
    std::ostream console_;
    dhc::HostGuard host_;
};

// Owner of a row-pointer matrix made by the readers (rows new[] rows).
class IntMatrix {
  public:
    IntMatrix() = default;
    IntMatrix(int** m, int rows) : m_(m), rows_(rows) {}
    IntMatrix(IntMatrix&& o) noexcept : m_(o.m_), rows_(o.rows_) { o.m_ = nullptr; }
    IntMatrix& operator=(IntMatrix&& o) noexcept {
        if (this != &o) {
            reset();
            m_ = o.m_;
            rows_ = o.rows_;
            o.m_ = nullptr;
        }
        return *this;
    }
    IntMatrix(const IntMatrix&) = delete;
    IntMatrix& operator=(const IntMatrix&) = delete;
    ~IntMatrix() { reset(); }

    int** get() const { return m_; }
    void reset() {
        dhc::deleteRows(m_, rows_);
        m_ = nullptr;
    }

  private:
    int** m_ = nullptr;
    int rows_ = 0;
};

// Owner of a cube made by readMxCube.
class IntCube {
  public:
    IntCube(int*** cube, int bands, int rows) : cube_(cube), bands_(bands), rows_(rows) {}
    IntCube(const IntCube&) = delete;
    IntCube& operator=(const IntCube&) = delete;
    ~IntCube() { reset(); }

    int*** get() const { return cube_; }
    void reset() {
        if (cube_ == nullptr) return;
        for (int b = 0; b < bands_; ++b) dhc::deleteRows(cube_[b], rows_);
        delete[] cube_;
        cube_ = nullptr;
    }

  private:
    int*** cube_;
    int bands_;
    int rows_;
};

struct MxDestroy {
    void operator()(mxArray* a) const { mxDestroyArray(a); }
};
using MxOwned = std::unique_ptr<mxArray, MxDestroy>;
using IntRoi = ROI<int, xy>;

// Reads an optional R x C map of the problem; empty when absent or empty.
// The map is read (and its rank asserted) even when it has no elements.
IntMatrix readFrameMap(const mxArray* problem, const char* name, int rows, int cols) {
    const MxValue value = mxNumericProperty(problem, name);
    if (!value) return IntMatrix();
    mxCheckIntValues(value.get(), name);
    int r = 0, c = 0;
    int** rowsRead = readMxMatrix<int>(value.get(), r, c);  // sets r before the owner takes it
    IntMatrix m(rowsRead, r);
    if (value.empty()) return IntMatrix();
    // The core addresses every map at the data's R x C frame without bounds.
    if (r != rows || c != cols)
        throw MxError("dhc:sizeMismatch", std::string("\"") + name + "\" is " + std::to_string(r) + "x" +
                                              std::to_string(c) + " but \"data\" is " + std::to_string(rows) +
                                              "x" + std::to_string(cols));
    return m;
}

// n x 1 double column (empty for n = 0) from n values.
template <typename T>
mxArray* column(const T* values, int n) {
    mxArray* a = mxCreateDoubleMatrix(n, 1, mxREAL);
    double* pr = mxGetPr(a);
    for (int i = 0; i < n; ++i) pr[i] = static_cast<double>(values[i]);
    return a;
}

// Band 0 of a label ROI expanded to the full R x C frame, 0 outside it.
mxArray* fullFrame(const IntRoi& labels, int rows, int cols) {
    mxArray* a = mxCreateDoubleMatrix(rows, cols, mxREAL);
    double* pr = mxGetPr(a);
    for (int k = 0; k < labels.count; ++k) {
        const size_t r = labels.coords[k].x + static_cast<size_t>(labels.minRow);
        const size_t c = labels.coords[k].y + static_cast<size_t>(labels.minCol);
        pr[r + c * rows] = labels.data[static_cast<size_t>(k) * labels.bands];
    }
    return a;
}

mxArray* newStruct(int n, int nFields, const char** fields) {
    const mwSize dims[2] = {static_cast<mwSize>(n), 1};
    return mxCreateStructArray(2, dims, nFields, fields);
}

// The five-field summary of the tree.
mxArray* buildSummary(const dhc::SplitSummary& summary) {
    const char* fields[] = {"NClass", "Classes", "NSplit", "SplitOrder", "OffspringMat"};
    MxOwned s(newStruct(1, 5, fields));
    const int nClass = static_cast<int>(summary.classes.size());
    const int nSplit = static_cast<int>(summary.splitOrder.size());
    mxSetField(s.get(), 0, "NClass", mxCreateDoubleScalar(nClass));
    if (nClass > 0) mxSetField(s.get(), 0, "Classes", column(summary.classes.data(), nClass));
    mxSetField(s.get(), 0, "NSplit", mxCreateDoubleScalar(nSplit));
    if (nSplit >= 1) {
        mxSetField(s.get(), 0, "SplitOrder", column(summary.splitOrder.data(), nSplit));
        mxArray* offspring = mxCreateDoubleMatrix(nSplit, nClass, mxREAL);
        double* pr = mxGetPr(offspring);
        for (int k = 0; k < nSplit; ++k)
            for (int j = 0; j < nClass; ++j)
                pr[k + static_cast<size_t>(j) * nSplit] =
                    summary.offspring[static_cast<size_t>(k) * nClass + j];
        mxSetField(s.get(), 0, "OffspringMat", offspring);
    }
    return s.release();
}

// One element per workspace report, one field per row of the region fields.
mxArray* buildReports(const dhc::RegionReports& reports) {
    const std::vector<dhc::RegionField>& fields = dhc::regionFields();
    std::vector<const char*> names;
    for (const dhc::RegionField& f : fields) names.push_back(f.matlab);
    MxOwned s(newStruct(reports.size(), static_cast<int>(names.size()), names.data()));
    for (int i = 0; i < reports.size(); ++i) {
        const dhc::RegionNode n = dhc::regionNode(reports[i]);
        mxArray* e = s.get();
        for (const dhc::RegionField& f : fields) {
            switch (f.kind) {
                case dhc::RegionFieldKind::Int:
                case dhc::RegionFieldKind::Flag:
                case dhc::RegionFieldKind::Real:
                    mxSetField(e, i, f.matlab, mxCreateDoubleScalar(f.number(n)));
                    break;
                case dhc::RegionFieldKind::Ints: {
                    const std::vector<int>& v = f.ints(n);
                    if (!v.empty()) mxSetField(e, i, f.matlab, column(v.data(), static_cast<int>(v.size())));
                    break;
                }
                case dhc::RegionFieldKind::Reals: {
                    const std::vector<double>& v = f.reals(n);
                    if (!v.empty()) mxSetField(e, i, f.matlab, column(v.data(), static_cast<int>(v.size())));
                    break;
                }
                case dhc::RegionFieldKind::Matrix: {
                    const std::vector<std::vector<double>>& m = f.matrix(n);
                    if (m.empty()) break;
                    const size_t d = m.size();
                    mxArray* a = mxCreateDoubleMatrix(d, d, mxREAL);
                    double* pr = mxGetPr(a);
                    for (size_t row = 0; row < d; ++row)
                        for (size_t col = 0; col < d; ++col) pr[row + col * d] = m[row][col];
                    mxSetField(e, i, f.matlab, a);
                    break;
                }
            }
        }
    }
    return s.release();
}

void run(int nlhs, mxArray* plhs[], const mxArray* problem, const mxArray* settingsObject) {
    MxValue data = mxRequiredNumericProperty(problem, "data");
    const mwSize nd = mxGetNumberOfDimensions(data.get());
    if (nd == 2 || nd == 3) {
        // Refuse what cannot be held before the reader allocates it.
        const mwSize* dim = mxGetDimensions(data.get());
        dhc::checkImageSize(static_cast<long long>(dim[0]), static_cast<long long>(dim[1]),
                            nd == 3 ? static_cast<long long>(dim[2]) : 1, "\"data\"");
        if (dim[0] > kMaxImageSide || dim[1] > kMaxImageSide)
            throw MxError("dhc:badProperty", "\"data\" has a side above " + std::to_string(kMaxImageSide));
        mxCheckIntValues(data.get(), "data");
    }
    int bands = 0, rows = 0, cols = 0;
    int*** cubeRead = readMxCube<int>(data.get(), bands, rows, cols);  // sets the sizes first
    IntCube cube(cubeRead, bands, rows);
    data = MxValue();

    dhc::GivenStructure structure;
    const std::unique_ptr<DHC_SET> settings(dhcConfig(settingsObject, &structure.levels, &structure.paths));
    const bool supervised = settings->supervisedMode;
    const bool treeOutput = dhc::hasTreeOutput(*settings);
    if (treeOutput != (nlhs == 3)) throw MxError(std::string(), kUsage);
    dhc::checkSettings(*settings, structure, dhc::matlabName);

    if (rows < 1 || cols < 1 || bands < 1) throw MxError("dhc:badProperty", "\"data\" is empty");

    IntMatrix gt;
    if (supervised) {
        gt = readFrameMap(problem, "gt", rows, cols);
        dhc::requireGroundTruth(true, gt.get() != nullptr, "supervisedMode=1", "\"gt\"");
    }
    IntMatrix initSeg = readFrameMap(problem, "initSeg", rows, cols);
    IntMatrix mask = readFrameMap(problem, "roi", rows, cols);
    // Optional: threads of the run (default 0, one per core).
    int threads = 0;
    const MxValue t = mxNumericProperty(problem, "threads");
    if (t && mxGetNumberOfElements(t.get()) > 1)
        throw MxError("dhc:badProperty", "\"threads\" must be a scalar");
    if (t && mxGetNumberOfElements(t.get()) == 1)
        threads = dhc::checkThreads(mxGetPr(t.get())[0], "\"threads\"");

    dhc::RunNames names;
    names.gt = "\"gt\"";
    names.classCount = dhc::matlabName(dhc::Setting::NumberOfClasses).name;
    names.settings = dhc::matlabName;
    // The input ROIs outlive the driver output: the core may keep pointers to them.
    const dhc::PreparedRun prepared = dhc::prepareRun(rows, cols, bands, cube.get(), mask.get(),
                                                      initSeg.get(), gt.get(), *settings, names, threads);
    cube.reset();
    mask.reset();
    initSeg.reset();
    gt.reset();

    const DHC_OUT out = dhc::runSegmentation(prepared, *settings, threads);
    if (out.labelRoi == nullptr || out.dhc == nullptr)
        throw MxError("dhc:internal", "the driver returned no result");

    const char* outFields[] = {"segmentation", "fragmentation"};
    MxOwned result(newStruct(1, 2, outFields));
    if (dhc::hasFragmentOutput(*settings) && out.fragRoi != nullptr)
        mxSetField(result.get(), 0, "fragmentation", fullFrame(*out.fragRoi, rows, cols));
    mxSetField(result.get(), 0, "segmentation", fullFrame(*out.labelRoi, rows, cols));

    MxOwned summary, reportArray;
    if (treeOutput) {
        const dhc::RegionReports reports(*out.dhc);
        summary.reset(buildSummary(dhc::summarizeSplits(*out.dhc, reports)));
        reportArray.reset(buildReports(reports));
    }

    plhs[0] = result.release();
    if (treeOutput) {
        plhs[1] = summary.release();
        plhs[2] = reportArray.release();
    }
}

std::string mxText(const mxArray* a, const char* what) {
    if (!mxIsChar(a)) throw MxError("dhc:badArgument", std::string(what) + " must be a character string");
    char* text = mxArrayToString(a);
    if (text == nullptr) throw MxError("dhc:badArgument", std::string(what) + " must be a character string");
    std::string out(text);
    mxFree(text);
    return out;
}

// A model as a MATLAB struct: its numbers, and its text for dhc_apply.
mxArray* modelStruct(const dhc::Model& m) {
    const char* fields[] = {"formatVersion", "bands", "beta", "radius", "labels", "means",
                            "covariances",   "scale", "nodata", "json"};
    MxOwned s(newStruct(1, 10, fields));
    const int k = static_cast<int>(m.leaves.size()), d = m.bands;
    mxSetField(s.get(), 0, "formatVersion", mxCreateDoubleScalar(dhc::kModelFormatVersion));
    mxSetField(s.get(), 0, "bands", mxCreateDoubleScalar(d));
    mxSetField(s.get(), 0, "beta", mxCreateDoubleScalar(m.beta));
    mxSetField(s.get(), 0, "radius", mxCreateDoubleScalar(dhc::kLabelRadius));
    mxArray* labels = mxCreateDoubleMatrix(k, 1, mxREAL);
    mxArray* means = mxCreateDoubleMatrix(k, d, mxREAL);
    const mwSize dims[3] = {static_cast<mwSize>(d), static_cast<mwSize>(d), static_cast<mwSize>(k)};
    mxArray* covariances = mxCreateNumericArray(3, dims, mxDOUBLE_CLASS, mxREAL);
    for (int i = 0; i < k; ++i) {
        const dhc::ModelLeaf& leaf = m.leaves[static_cast<size_t>(i)];
        mxGetPr(labels)[i] = leaf.label;
        for (int b = 0; b < d; ++b) mxGetPr(means)[i + static_cast<size_t>(b) * k] = leaf.mean[static_cast<size_t>(b)];
        for (int r = 0; r < d; ++r)
            for (int c = 0; c < d; ++c)
                mxGetPr(covariances)[r + static_cast<size_t>(c) * d + static_cast<size_t>(i) * d * d] =
                    leaf.covariance[static_cast<size_t>(r * d + c)];
    }
    mxSetField(s.get(), 0, "labels", labels);
    mxSetField(s.get(), 0, "means", means);
    mxSetField(s.get(), 0, "covariances", covariances);
    mxSetField(s.get(), 0, "scale",
               m.values.floatBands ? mxCreateDoubleScalar(m.values.scale) : mxCreateDoubleMatrix(0, 0, mxREAL));
    mxSetField(s.get(), 0, "nodata",
               m.values.hasNodata ? mxCreateDoubleScalar(m.values.nodata) : mxCreateDoubleMatrix(0, 0, mxREAL));
    mxSetField(s.get(), 0, "json", mxCreateString(dhc::modelJsonText(m).c_str()));
    return s.release();
}

// dhc('model_load', path) and dhc('apply', data, modelText, roi, threads).
void modelCommand(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    const std::string command = mxText(prhs[0], "the command");
    if (command == "model_load") {
        if (nrhs != 2 || nlhs > 1) throw MxError("dhc:usage", "usage: model = dhc('model_load', path)");
        plhs[0] = modelStruct(dhc::readModelFile(mxText(prhs[1], "the model's path")));
        return;
    }
    if (command != "apply") throw MxError("dhc:usage", "unknown command \"" + command + "\" (model_load, apply)");
    if (nrhs != 5 || nlhs > 1)
        throw MxError("dhc:usage", "usage: labels = dhc('apply', data, modelText, roi, threads)");
    const dhc::Model model = dhc::parseModel(mxText(prhs[2], "the model"), "model");
    const mxArray* data = prhs[1];
    const mwSize nd = mxGetNumberOfDimensions(data);
    if (!mxIsDouble(data) || mxIsComplex(data) || (nd != 2 && nd != 3) || mxIsEmpty(data))
        throw MxError("dhc:badArgument", "the image must be a non-empty rows x cols x bands double array");
    const mwSize* dim = mxGetDimensions(data);
    dhc::checkImageSize(static_cast<long long>(dim[0]), static_cast<long long>(dim[1]),
                        nd == 3 ? static_cast<long long>(dim[2]) : 1, "the image");
    if (dim[0] > kMaxImageSide || dim[1] > kMaxImageSide)
        throw MxError("dhc:badArgument", "the image has a side above " + std::to_string(kMaxImageSide));
    mxCheckIntValues(data, "image");
    int bands = 0, rows = 0, cols = 0;
    int*** cubeRead = readMxCube<int>(data, bands, rows, cols);
    IntCube cube(cubeRead, bands, rows);
    if (bands != model.bands)
        throw MxError("dhc:badModel", "the model has " + std::to_string(model.bands) + " bands but the image has " +
                                          std::to_string(bands));
    if (model.values.floatBands)
        throw MxError("dhc:badModel",
                      "the model was made from floating-point values (scaled); scale the image by model.scale and "
                      "round it first");
    std::vector<uint8_t> valid;
    const mxArray* roi = prhs[3];
    if (!mxIsEmpty(roi)) {
        if (!mxIsDouble(roi) || mxGetNumberOfDimensions(roi) != 2 || mxGetM(roi) != static_cast<size_t>(rows) ||
            mxGetN(roi) != static_cast<size_t>(cols))
            throw MxError("dhc:sizeMismatch", "the mask must be a double array of the image's rows and columns");
        valid.resize(static_cast<size_t>(rows) * static_cast<size_t>(cols));
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                valid[static_cast<size_t>(r) * cols + c] =
                    mxGetPr(roi)[static_cast<size_t>(r) + static_cast<size_t>(c) * rows] == 1.0 ? 1 : 0;
    }
    int threads = 0;
    if (!mxIsEmpty(prhs[4])) {
        if (!mxIsDouble(prhs[4]) || mxGetNumberOfElements(prhs[4]) != 1)
            throw MxError("dhc:badArgument", "threads must be a number");
        threads = dhc::checkThreads(mxGetPr(prhs[4])[0], "threads");
    }
    std::vector<int32_t> labels(static_cast<size_t>(rows) * static_cast<size_t>(cols));
    const dhc::Labeller labeller(model);
    labeller.label(cube.get(), valid.empty() ? nullptr : valid.data(), rows, cols, 0, 0, labels.data(), threads);
    mxArray* out = mxCreateDoubleMatrix(rows, cols, mxREAL);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            mxGetPr(out)[static_cast<size_t>(r) + static_cast<size_t>(c) * rows] =
                labels[static_cast<size_t>(r) * cols + c];
    plhs[0] = out;
}

// Identifier of a fatal condition: the status with its sign spelled out,
// "dhc:fatal:m20" for -20, "dhc:fatal:p1" for 1.
std::string fatalId(int status) {
    return std::string("dhc:fatal:") + (status < 0 ? "m" : "p") +
           std::to_string(status < 0 ? -static_cast<long>(status) : status);
}

}  // namespace

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    const bool command = nrhs >= 1 && mxIsChar(prhs[0]);
    if (!command && ((nlhs != 1 && nlhs != 3) || nrhs != 2)) mexErrMsgTxt(kUsage);

    // The error is raised after every owner of the call is gone; MATLAB may
    // leave without unwinding, so its texts live in static storage.
    static char errorId[64];
    static char errorText[2048];
    bool failed = false;
    auto fail = [&](const std::string& id, const std::string& text) {
        std::snprintf(errorId, sizeof errorId, "%s", id.c_str());
        std::snprintf(errorText, sizeof errorText, "%s", text.c_str());
        failed = true;
    };
    {
        HostGuard guard;
        try {
            if (command)
                modelCommand(nlhs, plhs, nrhs, prhs);
            else
                run(nlhs, plhs, prhs[0], prhs[1]);
        } catch (const FatalCondition& f) {
            fail(fatalId(f.status),
                 f.message.empty() ? "fatal condition (status " + std::to_string(f.status) + ")" : f.message);
        } catch (const MxError& e) {
            fail(e.id(), e.what());
        } catch (const InputError& e) {
            fail(e.id().empty() ? "dhc:badInput" : e.id(), e.what());
        } catch (const std::bad_alloc&) {
            fail("dhc:outOfMemory", "out of memory");
        } catch (const std::exception& e) {
            fail("dhc:internal", e.what());
        }
    }
    if (!failed) return;
    if (errorId[0] == '\0')
        mexErrMsgTxt(errorText);
    else
        mexErrMsgIdAndTxt(errorId, "%s", errorText);
}
