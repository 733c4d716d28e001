// A whole segmentation run on a small random image, with optional mask,
// initial segmentation or ground truth and random settings, through exactly
// the path of `dhc segment`: default configuration + overrides,
// readCheckedSettings, prepareRun with the tool's names, runSegmentation, the
// outputs.  A refusal (InputError) is an answer; a fatal status of the core is
// an answer too (it unwinds here as it does in the MEX module).  The run must
// give every point of the region a positive label, and the same input must
// give the same labels.
//
// Sides are bounded (up to 12, up to 3 bands) so the target measures
// correctness, not slowness; every setting sometimes takes a value far outside
// its usual range (the check decides), ground truths may hold negative labels
// and values span the whole int32 range.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "DefaultIni.h"
#include "FuzzSupport.h"
#include "data/ROI.h"
#include "driver/DHC.h"
#include "driver/DHC_OUT.h"
#include "frontend/IniFile.h"
#include "base/InputError.h"
#include "frontend/Segmentation.h"
#include "settings/DHC_SET.h"

using namespace dhc::fuzz;

namespace {

template <typename T, size_t N>
const T& pick(Bytes& in, const T (&options)[N]) {
    return options[in.range(0, static_cast<int>(N) - 1)];
}

// Now and then a value far outside the usual range: the check refuses it or
// lets it through, and the run must then end well.
const char* const kWildInts[] = {"-1", "2147483647", "-2147483648", "1000", "65", "64", "0"};
const char* const kWildReals[] = {"-1", "1e300", "-1e300", "1e-300", "2147483648", "nan", "-100", "100",
                                  "1e9", "-1e9", "1e15", "inf"};

std::string integer(Bytes& in, int lo, int hi) {
    if (in.range(0, 7) == 0) return pick(in, kWildInts);
    return std::to_string(in.range(lo, hi));
}

template <size_t N>
std::string real(Bytes& in, const char* const (&usual)[N]) {
    if (in.range(0, 7) == 0) return pick(in, kWildReals);
    return pick(in, usual);
}

// A rows x cols plane with row pointers.
struct Plane {
    std::vector<int> cells;
    std::vector<int*> rows;
    Plane(int r, int c) : cells(static_cast<size_t>(r * c)), rows(static_cast<size_t>(r)) {
        for (int i = 0; i < r; ++i) rows[static_cast<size_t>(i)] = &cells[static_cast<size_t>(i * c)];
    }
    int** get() { return rows.data(); }
};

struct Case {
    int rows, cols, bands;
    std::vector<Plane> cube;
    std::vector<int**> cubeRows;
    std::unique_ptr<Plane> mask, init, gt;
    std::vector<std::string> sets;
    int classes = 0;  // supervised: ground-truth labels are 1..classes
};

Case makeCase(Bytes& in) {
    Case c;
    c.rows = in.range(1, 12);
    c.cols = in.range(1, 12);
    c.bands = in.range(1, 3);
    const bool supervised = in.flag();
    auto set = [&c](const std::string& key, const std::string& value) {
        c.sets.push_back(key + "=" + value);
    };
    set("SEGM_MAIN_CONFIGURATION.SupervisedMode", supervised ? "1" : "0");
    int classes = 0;
    if (supervised) {
        // Class structures the check accepts: flat ones and deeper trees.
        struct Structure {
            int classes;
            const char* levels;
            const char* paths;
        };
        static const Structure structures[] = {
            {1, "{1}", "{0}"},
            {2, "{1 1}", "{0 1}"},
            {3, "{1 1 1}", "{0 1 2}"},
            {4, "{1 1 1 1}", "{0 1 2 3}"},
            {3, "{1 2 2}", "{0 1 0 1 1}"},
            {3, "{2 2 1}", "{0 0 0 1 1}"},
            {4, "{2 2 2 2}", "{0 0 0 1 1 0 1 1}"},
            {4, "{1 2 3 3}", "{0 1 0 1 1 0 1 1 1}"},
        };
        const Structure& st = pick(in, structures);
        classes = c.classes = st.classes;
        const std::string levels = st.levels, paths = st.paths;
        set("SUPERVISED_MODE_CONF.NumberOfClasses", std::to_string(classes));
        set("SUPERVISED_MODE_CONF.StructureLevels", levels);
        set("SUPERVISED_MODE_CONF.StructurePaths", paths);
    } else {
        static const char* const gains[] = {"0", "0.2", "1", "-1", "5", "0.01", "-1e9", "1e9"};
        static const char* const areas[] = {"0", "1", "4", "16", "64"};
        static const char* const small[] = {"0", "0.5", "1", "2", "3"};
        set("UNSUPERVISED_MODE_CONF.SplitGainThreshold", real(in, gains));
        set("UNSUPERVISED_MODE_CONF.MaxNumberOfClasses", integer(in, 0, 10));
        set("UNSUPERVISED_MODE_CONF.MinRegionArea", real(in, areas));
        set("UNSUPERVISED_MODE_CONF.BalancedTree", in.flag() ? "1" : "0");
        set("UNSUPERVISED_MODE_CONF.GrowDepth", integer(in, 0, 4));
        set("UNSUPERVISED_MODE_CONF.Blind", in.flag() ? "1" : "0");
        set("UNSUPERVISED_MODE_CONF.Metric", integer(in, 0, 8));
        set("UNSUPERVISED_MODE_CONF.DistortionThreshold", real(in, small));
        set("UNSUPERVISED_MODE_CONF.BlindSplitDepthMax", real(in, small));
        set("UNSUPERVISED_MODE_CONF.BlindSplitAreaMin", real(in, areas));
        set("UNSUPERVISED_MODE_CONF.BlindSplitMSEMin", real(in, small));
        set("UNSUPERVISED_MODE_CONF.DoubleSplit", in.flag() ? "1" : "0");
        set("UNSUPERVISED_MODE_CONF.SplitwiseDisconnect", in.flag() ? "1" : "0");
        set("UNSUPERVISED_MODE_CONF.Fragmentation", in.flag() ? "1" : "0");
        set("UNSUPERVISED_MODE_CONF.VariableMultiplicity", in.flag() ? "1" : "0");
        set("POTTS_MODEL.Multiplicity", integer(in, 2, 4));
    }
    static const char* const betaMins[] = {"0", "0.1", "0.5", "-100", "100", "-3"};
    static const char* const betaMaxs[] = {"0.5", "1.5", "3", "100"};
    static const char* const bandwidths[] = {"0", "1", "10"};
    static const char* const tolerances[] = {"0.05", "0.5", "0.001"};
    static const char* const skips[] = {"0", "0.1", "0.5"};
    set("POTTS_MODEL.BetaMin", real(in, betaMins));
    set("POTTS_MODEL.BetaMax", real(in, betaMaxs));
    set("POTTS_MODEL.Adaptive", in.flag() ? "1" : "0");
    set("POTTS_MODEL.BetaBound", real(in, bandwidths));
    set("POTTS_MODEL.RangeBandwidth", real(in, bandwidths));
    set("POTTS_MODEL.SpatialBandwidth", real(in, bandwidths));
    set("MEANSHIFT.AutoAdjustKNN", integer(in, 0, 3));
    set("MEANSHIFT.Tolerance", real(in, tolerances));
    set("MEANSHIFT.SkipLast", real(in, skips));
    set("MEANSHIFT.KernelType", integer(in, 0, 2));

    const bool maskGiven = in.flag(), initGiven = !supervised && in.flag();
    // Small ranges give ties, equal pixels and constant bands; the widest
    // reaches both ends of int32.
    static const int bounds[] = {0, 1, 15, 255, 4095, 40000, 65535};
    const int bound = pick(in, bounds);
    const bool fullRange = in.range(0, 7) == 0;
    for (int b = 0; b < c.bands; ++b) c.cube.emplace_back(c.rows, c.cols);
    for (Plane& p : c.cube) {
        for (int& v : p.cells) {
            v = in.range(0, bound);
            if (fullRange) v = static_cast<int>(static_cast<unsigned>(in.range(0, 65535)) << 16 |
                                                static_cast<unsigned>(in.range(0, 65535)));
        }
        c.cubeRows.push_back(p.get());
    }
    if (maskGiven) {
        c.mask = std::make_unique<Plane>(c.rows, c.cols);
        for (int& v : c.mask->cells) v = in.range(0, 3) == 0 ? 0 : 1;
    }
    if (initGiven) {
        c.init = std::make_unique<Plane>(c.rows, c.cols);
        for (int& v : c.init->cells) v = in.range(-1, 3);
    }
    if (supervised) {
        c.gt = std::make_unique<Plane>(c.rows, c.cols);
        // Now and then a negative label: the front end refuses it.
        const bool negative = in.range(0, 7) == 0;
        for (int& v : c.gt->cells) v = in.range(negative ? -2 : 0, classes);
    }
    return c;
}

// The case as text: sizes, settings and every plane, for reproducing a finding.
std::string describe(const Case& c) {
    std::string s =
        std::to_string(c.rows) + " x " + std::to_string(c.cols) + ", " + std::to_string(c.bands) + " bands\n";
    for (const std::string& set : c.sets) s += "--set " + set + "\n";
    auto plane = [&](const char* name, const Plane& p) {
        s += name;
        for (size_t i = 0; i < p.cells.size(); ++i)
            s += (i % static_cast<size_t>(c.cols) == 0 ? "\n  " : " ") + std::to_string(p.cells[i]);
        s += "\n";
    };
    for (const Plane& p : c.cube) plane("band", p);
    if (c.mask) plane("mask", *c.mask);
    if (c.init) plane("init", *c.init);
    if (c.gt) plane("gt", *c.gt);
    return s;
}

std::vector<int> run(const Case& c, const IniFile& ini, DHC_SET& settings, int& classes) {
    dhc::RunNames names;
    names.gt = "ground truth \"gt.hraw\"";
    names.settings = settingNames(ini);
    dhc::PreparedRun prepared = dhc::prepareRun(
        c.rows, c.cols, c.bands, const_cast<int***>(c.cubeRows.data()), c.mask ? c.mask->get() : nullptr,
        c.init ? c.init->get() : nullptr, c.gt ? c.gt->get() : nullptr, settings, names);
    const int points = prepared.roi->count;
    DHC_OUT out = dhc::runSegmentation(prepared, settings);
    if (out.labelRoi == nullptr || out.labelRoi->count != points) broken("no label for every point");
    // Unsupervised: every point carries its leaf's label.  Supervised: the map
    // labels are matched to ground-truth labels; a map label left without a
    // partner keeps no ground-truth label (0), nothing else may appear.
    for (int k = 0; k < points; ++k) {
        const int label = out.labelRoi->data[k];
        if (c.gt ? (label < 0 || label > c.classes) : label <= 0) {
            std::string all;
            for (int j = 0; j < points; ++j) all += " " + std::to_string(out.labelRoi->data[j]);
            broken("a point of the region has label " + std::to_string(label) + "; labels:" + all);
        }
    }
    if (out.nClasses < 1) broken("a run without classes");
    if (dhc::hasFragmentOutput(settings) && out.fragRoi == nullptr) broken("no fragment map");
    if (dhc::hasTreeOutput(settings)) {
        const std::string report = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") +
                                   "/dhc-fuzz-report-" + std::to_string(::getpid());
        out.dhc->printReport(report);
        ::unlink(report.c_str());
    }
    classes = out.nClasses;
    return dhc::fullFrame(*out.labelRoi, c.rows, c.cols);
}

}  // namespace

// A failed supervised split runs the shell command "PAUSE" before its fatal
// status; here that would start a shell per such input.  This definition takes
// the place of the C library's for the whole target and runs nothing.
extern "C" int system(const char*) {
    return -1;
}

// How often each fatal status of the core was reached, printed at the end of a
// run (DHC_FUZZ_FATALS=1) to see which deliberate ends the inputs reach.
static std::map<int, long>& fatals() {
    static std::map<int, long> counts;
    return counts;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    fatals();  // constructed before the handler is registered, so still alive when it runs
    if (std::getenv("DHC_FUZZ_FATALS") != nullptr)
        std::atexit([] {
            for (const auto& f : fatals())
                std::fprintf(stderr, "fuzz: fatal status %d: %ld\n", f.first, f.second);
        });
    DHC::setProgress(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    Case c = makeCase(in);
    context() = describe(c);
    // DHC_FUZZ_SHOW=1: every case as text, to see what a slow input holds.
    if (std::getenv("DHC_FUZZ_SHOW") != nullptr) std::fprintf(stderr, "fuzz: case:\n%s\n", context().c_str());
    IniFile ini("default.ini", kDefaultIni);
    std::unique_ptr<DHC_SET> settings;
    try {
        // The tool's order: the overrides, then the checked reading.
        for (const std::string& s : c.sets) ini.applyOverride(s);
        settings = readCheckedSettings(ini);
    } catch (const InputError&) {
        return 0;
    }
    try {
        int classes1 = 0, classes2 = 0;
        const std::vector<int> first = run(c, ini, *settings, classes1);
        std::unique_ptr<DHC_SET> again = readCheckedSettings(ini);
        const std::vector<int> second = run(c, ini, *again, classes2);
        if (first != second || classes1 != classes2) broken("the same run gave different labels");
    } catch (const InputError&) {
    } catch (const FatalStatus& f) {
        if (++fatals()[f.status] == 1 && std::getenv("DHC_FUZZ_FATALS") != nullptr)
            std::fprintf(stderr, "fuzz: first fatal status %d on:\n%s\n", f.status, context().c_str());
    }
    return 0;
}
