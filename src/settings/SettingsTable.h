#pragma once
// Every setting of a run, one row each: its name in every front end, its kind,
// default, accepted range and meaning.  The checked ini reader (what a key
// holds), the refusals (how a setting is named), the Python Settings
// attributes, the MATLAB/Octave property reader and the tree JSON's settings
// block all read their settings from here; none keeps its own list.
//
// Adding a setting: a field in DHC_SET (declared where its place in the tree
// JSON's settings block should be: the block lists the fields in their
// declared order), its read in DHC_SET(ConfigFileParser&), an enumerator of
// Setting and a row of kRows (SettingsTable.cpp) at the same position, and its
// range check in checkSettings (src/frontend/SettingsCheck.cpp).  A property
// added after MATLAB users had settings objects is optionalProperty: an object
// without it reads 0.

#include <cstddef>
#include <vector>

struct DHC_SET;

namespace dhc {

// Kind of value a setting holds, as the ini reader parses it.
enum class SettingKind { Flag, Int, Double, IntArray };

// The settings, in the order of the rows (the order of examples/default.ini
// and of the Python attributes).
enum class Setting {
    SupervisedMode,
    SplitGainThreshold,
    MaxNumberOfClasses,
    MinRegionArea,
    VariableMultiplicity,
    BalancedTree,
    GrowDepth,
    Blind,
    Metric,
    DistortionThreshold,
    BlindSplitDepthMax,
    BlindSplitAreaMin,
    BlindSplitMSEMin,
    DoubleSplit,
    SplitwiseDisconnect,
    Fragmentation,
    NumberOfClasses,
    StructureLevels,
    StructurePaths,
    Multiplicity,
    BetaMin,
    BetaMax,
    Adaptive,
    BetaBound,
    RangeBandwidth,
    SpatialBandwidth,
    AutoAdjustKNN,
    Tolerance,
    SkipLast,
    KernelType,
    StopCriterion,
    FinalRefinement,
};

// Ends of the accepted ranges that are no plain number.
constexpr int kMaxMultiplicity = 64;        // children per split (and AutoAdjustKNN modes)
constexpr int kMaxPathLength = 1000;        // entries of one class path
constexpr double kMaxAbsThreshold = 1e9;    // |SplitGainThreshold|; threshold - 1 stays distinct
constexpr double kMaxAbsSetting = 1e15;     // every other real setting

struct SettingRow {
    Setting id;
    const char* key;          // ini key ("BetaMin")
    const char* section;      // ini section ("POTTS_MODEL")
    const char* attribute;    // Python: dhc.Settings attribute ("beta_min")
    const char* property;     // MATLAB/Octave: path in the settings object ("engineSet.betaMin")
    const char* defaultText;  // the value of examples/default.ini; null: absent from it
    const char* range;        // what a run that uses the setting accepts, in words
    double min, max;          // the range checkSettings applies; NaN: none of its own (the kind, the
                              // label space or the other settings decide)
    const char* meaning;      // one line
    bool optionalProperty;    // an object without the property reads 0
    const char* field;        // DHC_SET field, and the name in the tree JSON ("betaMin")
    SettingKind kind;
    // The field of DHC_SET, by kind (the others are null).
    bool DHC_SET::*flag;
    int DHC_SET::*integer;
    double DHC_SET::*real;
    int* DHC_SET::*list;
    std::size_t offset;  // of the field in DHC_SET: the JSON's order
};

// Every row, in the order of Setting.
const std::vector<SettingRow>& settingsTable();
const SettingRow& settingRow(Setting s);
// The row of SECTION.Key, or null.
const SettingRow* findSetting(const char* section, const char* key);
// The last component of a property path ("betaMin" of "engineSet.betaMin").
const char* propertyLeaf(const SettingRow& row);

// A value of a Flag, Int or Double setting of a record, as a double.
double settingValue(const DHC_SET& set, const SettingRow& row);

}  // namespace dhc
