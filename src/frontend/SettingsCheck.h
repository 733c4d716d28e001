#pragma once
// The settings every front end refuses before a run: values the core cannot
// work with (it would read past its tables, wrap its arithmetic, or loop
// without end) and values outside the documented sane range.  One check for
// the command-line tool, the MEX module and the Python package, so that all
// three accept and refuse the same settings with the same messages.

#include <functional>
#include <string>

struct DHC_SET;

namespace dhc {

// Sane ranges, documented in the README's settings table.
constexpr double kBetaLimit = 100.0;  // |BetaMin|, |BetaMax|, |BetaBound|
constexpr double kValueLimit = 1e12;  // |SplitGainThreshold|, areas, depths, blind limits, bandwidths
constexpr int kMaxMultiplicity = 64;  // children per split, modes wanted
constexpr int kLabelSpace = 1000000;  // labels one run can hand out

// Names where a setting came from, for messages: "cfg.ini:6" or
// "--set POTTS_MODEL.BetaMin=2" in the tool, "engineSet.betaMin" in MATLAB.
// Called with the ini section and key of the setting.
using SettingOrigin = std::function<std::string(const char* section, const char* key)>;

// Throws an InputError (status 1, kind "badSetting") naming the first setting
// that cannot run: "ORIGIN: Multiplicity must be at least 2 (children per split)".
// The supervised class structure must hold numberOfClasses levels and as many
// path entries as their sum (each front end checks the lengths it reads).
// An unknown blind Metric is refused too unless coreJudgesMetric is set: the
// MEX module leaves it to the core, whose fatal status -20 ("dhc:fatal:m20")
// MATLAB code has always been able to catch.
void checkSettings(const DHC_SET& settings, const SettingOrigin& origin, bool coreJudgesMetric = false);

}  // namespace dhc
