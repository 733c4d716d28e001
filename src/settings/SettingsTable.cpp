#include "settings/SettingsTable.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>

#include "settings/DHC_SET.h"

namespace dhc {
namespace {

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

// The enumerator and its ini key, which share their name.
#define KEY(name) Setting::name, #name
// The DHC_SET field of a row, by kind: its name, kind, member and offset.
#define FLAG(f) #f, SettingKind::Flag, &DHC_SET::f, nullptr, nullptr, nullptr, offsetof(DHC_SET, f)
#define INT(f) #f, SettingKind::Int, nullptr, &DHC_SET::f, nullptr, nullptr, offsetof(DHC_SET, f)
#define REAL(f) #f, SettingKind::Double, nullptr, nullptr, &DHC_SET::f, nullptr, offsetof(DHC_SET, f)
#define LIST(f) #f, SettingKind::IntArray, nullptr, nullptr, nullptr, &DHC_SET::f, offsetof(DHC_SET, f)

constexpr const char* kMain = "SEGM_MAIN_CONFIGURATION";
constexpr const char* kUnsup = "UNSUPERVISED_MODE_CONF";
constexpr const char* kSup = "SUPERVISED_MODE_CONF";
constexpr const char* kPotts = "POTTS_MODEL";
constexpr const char* kMeanShift = "MEANSHIFT";
constexpr const char* kFlag = "0 or 1";
constexpr const char* kFinite15 = "a finite number from -1e15 to 1e15";
constexpr const char* kPositive15 = "a finite number from 0 to 1e15";
constexpr const char* kBeta = "a finite number from -100 to 100";

// key, section, Python attribute, MATLAB property, default, range in words, range, meaning,
// optional property, field.
constexpr SettingRow kRows[] = {
    {KEY(SupervisedMode), kMain, "supervised_mode", "supervisedMode", "0", kFlag, kNone, kNone,
     "split along the class structure, seeded by a ground truth", false, FLAG(supervisedMode)},
    {KEY(SplitGainThreshold), kUnsup, "split_gain_threshold", "unsupSet.classicSet.splitGainThreshold", "0.2",
     "a finite number from -1e9 to 1e9", -kMaxAbsThreshold, kMaxAbsThreshold,
     "the least split gain (or blind score) of a split that is made", false, REAL(splitGainThreshold)},
    {KEY(MaxNumberOfClasses), kUnsup, "max_number_of_classes", "unsupSet.classicSet.maxNumberOfClasses", "15",
     "0 to 1,000,000 (the label space)", kNone, kNone, "no split is made once this many classes exist", false,
     INT(maxNumberOfClasses)},
    {KEY(MinRegionArea), kUnsup, "min_region_area", "unsupSet.classicSet.minSplitArea", "64", kPositive15, 0.0,
     kMaxAbsSetting, "regions of fewer pixels are not split, nor split into smaller ones", false,
     REAL(minSplitArea)},
    {KEY(VariableMultiplicity), kUnsup, "variable_multiplicity", "unsupSet.variableMultiplicity", "0", kFlag, kNone,
     kNone, "each split estimates its number of children by mean shift", false, FLAG(variableMultiplicity)},
    {KEY(BalancedTree), kUnsup, "balanced_tree", "unsupSet.balancedTree", "0", kFlag, kNone, kNone,
     "grow the tree level by level down to GrowDepth", false, FLAG(balancedTree)},
    {KEY(GrowDepth), kUnsup, "grow_depth", "unsupSet.growDepth", "0", "0 to 1000", 0, 1000,
     "depth of a balanced tree", false, INT(growDepth)},
    {KEY(Blind), kUnsup, "blind", "unsupSet.blind", "0", kFlag, kNone, kNone,
     "split breadth first by a score, without test splits", false, FLAG(blind)},
    {KEY(Metric), kUnsup, "metric", "unsupSet.blindSet.metric", "0", "0 to 8", 0, 8, "the score of blind splitting",
     false, INT(metric)},
    {KEY(DistortionThreshold), kUnsup, "distortion_threshold", "unsupSet.blindSet.distorsionThreshold", "0",
     kFinite15, -kMaxAbsSetting, kMaxAbsSetting, "carried with the blind options", false,
     REAL(distorsionThreshold)},
    {KEY(BlindSplitDepthMax), kUnsup, "blind_split_depth_max", "unsupSet.blindSet.depth", "0", kPositive15, 0.0,
     kMaxAbsSetting, "blind limits: split while the depth is at most this (0: any)", false, REAL(blindDepth)},
    {KEY(BlindSplitAreaMin), kUnsup, "blind_split_area_min", "unsupSet.blindSet.area", "0", kPositive15, 0.0,
     kMaxAbsSetting, "blind limits: split while the area is at least this (0: any)", false, REAL(blindArea)},
    {KEY(BlindSplitMSEMin), kUnsup, "blind_split_mse_min", "unsupSet.blindSet.MSE", "0", kPositive15, 0.0,
     kMaxAbsSetting, "blind limits: split while the mean squared deviation is at least this (0: any)", false,
     REAL(blindMSE)},
    {KEY(DoubleSplit), kUnsup, "double_split", "unsupSet.doubleSplit", "0", kFlag, kNone, kNone,
     "selects split mode 2", false, FLAG(doubleSplit)},
    {KEY(SplitwiseDisconnect), kUnsup, "splitwise_disconnect", "unsupSet.splitwiseDisconnect", "0", kFlag, kNone,
     kNone, "cut every new region into its 8-connected pieces", false, FLAG(splitwiseDisconnect)},
    {KEY(Fragmentation), kUnsup, "fragmentation", "fragmentation", "0", kFlag, kNone, kNone,
     "after the run, cut every class into 8-connected fragments", false, FLAG(fragmentation)},
    {KEY(NumberOfClasses), kSup, "number_of_classes", "supSet.numberOfClasses", "0",
     "1 to 1,000,000, the ground truth's classes", kNone, kNone, "supervised: the number of classes", false,
     INT(numberOfClasses)},
    {KEY(StructureLevels), kSup, "structure_levels", "supSet.structureLevels", nullptr,
     "NumberOfClasses path lengths, each 1 to 1000", kNone, kNone, "supervised: the length of each class's path",
     false, LIST(structureLevels)},
    {KEY(StructurePaths), kSup, "structure_paths", "supSet.structurePaths", nullptr,
     "the class paths of a tree, concatenated", kNone, kNone, "supervised: each class's child indices from the root",
     false, LIST(structurePaths)},
    {KEY(Multiplicity), kPotts, "multiplicity", "unsupSet.multiplicity", "2",
     "2 to 64, at most the pixels of the region of interest", 2, kMaxMultiplicity, "children per split", false,
     INT(multiplicity)},
    {KEY(BetaMin), kPotts, "beta_min", "engineSet.betaMin", "0", "a finite number from -100 to 100, at most BetaMax",
     -100.0, 100.0, "least beta of a split", false, REAL(betaMin)},
    {KEY(BetaMax), kPotts, "beta_max", "engineSet.betaMax", "1.5", kBeta, -100.0, 100.0, "greatest beta of a split",
     false, REAL(betaMax)},
    {KEY(Adaptive), kPotts, "adaptive", "engineSet.adaptive", "0", kFlag, kNone, kNone,
     "marked pixels use BetaBound instead of the estimate", false, FLAG(adaptive)},
    {KEY(BetaBound), kPotts, "beta_bound", "engineSet.betaBound", "0", kBeta, -100.0, 100.0,
     "beta of the marked pixels in adaptive mode", false, REAL(betaBound)},
    {KEY(RangeBandwidth), kPotts, "range_bandwidth", "engineSet.rangeBandwidth", "0", kFinite15, -kMaxAbsSetting,
     kMaxAbsSetting, "carried to the engine", false, REAL(rangeBandwidth)},
    {KEY(SpatialBandwidth), kPotts, "spatial_bandwidth", "engineSet.spatialBandwidth", "0", kFinite15,
     -kMaxAbsSetting, kMaxAbsSetting, "carried to the engine", false, REAL(spatialBandwidth)},
    {KEY(AutoAdjustKNN), kMeanShift, "auto_adjust_knn", "engineSet.autoAdjustkNN", "0", "0 to 64", 0,
     kMaxMultiplicity, "mean shift: the number of modes wanted (0: as found)", false, INT(autoAdjustkNN)},
    {KEY(Tolerance), kMeanShift, "tolerance", "engineSet.tolerance", "0.05", "a number from 0 to 1", 0.0, 1.0,
     "mean shift: modes holding less of the sample are dropped", false, REAL(tolerance)},
    {KEY(SkipLast), kMeanShift, "skip_last", "engineSet.skipLast", "0.1", "a number from 0 to 1", 0.0, 1.0,
     "mean shift: the part of the sample that may stay unassigned", false, REAL(skipLast)},
    {KEY(KernelType), kMeanShift, "kernel_type", "engineSet.kernelType", "0", "an integer", kNone, kNone,
     "mean shift: kernel selector", false, INT(kernelType)},
    {KEY(StopCriterion), kUnsup, "stop_criterion", "unsupSet.classicSet.stopCriterion", "1", "0, 1 or 2", 0, 2,
     "how a test split is judged: 0 split gain, 1 ICL, 2 BIC", true, INT(stopCriterion)},
    {KEY(FinalRefinement), kUnsup, "final_refinement", "unsupSet.finalRefinement", "10", "0 to 1000 rounds", 0, 1000,
     "rounds of the joint refinement of the final map (0: none)", true, INT(finalRefinement)},
};

#undef KEY
#undef FLAG
#undef INT
#undef REAL
#undef LIST

constexpr size_t kCount = sizeof kRows / sizeof kRows[0];
static_assert(kCount == static_cast<size_t>(Setting::FinalRefinement) + 1, "one row per setting");

constexpr bool inOrder() {
    for (size_t i = 0; i < kCount; ++i)
        if (static_cast<size_t>(kRows[i].id) != i) return false;
    return true;
}
static_assert(inOrder(), "rows in the order of their enumerators");

}  // namespace

const std::vector<SettingRow>& settingsTable() {
    static const std::vector<SettingRow> table(std::begin(kRows), std::end(kRows));
    return table;
}

const SettingRow& settingRow(Setting s) {
    return settingsTable()[static_cast<size_t>(s)];
}

const SettingRow* findSetting(const char* section, const char* key) {
    for (const SettingRow& row : settingsTable())
        if (std::strcmp(row.section, section) == 0 && std::strcmp(row.key, key) == 0) return &row;
    return nullptr;
}

const char* propertyLeaf(const SettingRow& row) {
    const char* dot = std::strrchr(row.property, '.');
    return dot == nullptr ? row.property : dot + 1;
}

double settingValue(const DHC_SET& set, const SettingRow& row) {
    switch (row.kind) {
        case SettingKind::Flag:
            return set.*row.flag ? 1.0 : 0.0;
        case SettingKind::Int:
            return set.*row.integer;
        case SettingKind::Double:
            return set.*row.real;
        case SettingKind::IntArray:
            break;
    }
    return 0.0;
}

}  // namespace dhc
