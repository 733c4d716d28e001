#include "frontend/SettingsCheck.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <vector>

#include "frontend/InputError.h"
#include "settings/DHC_SET.h"

namespace dhc {
namespace {

class Checker {
  public:
    Checker(const DHC_SET& s, const SettingOrigin& origin, bool coreJudgesMetric)
        : s_(s), origin_(origin), coreJudgesMetric_(coreJudgesMetric) {}

    [[noreturn]] void fail(const char* section, const char* key, const std::string& what) const {
        throw InputError(kExitInput, origin_(section, key) + ": " + what, "badSetting");
    }

    // A real setting must be a finite number within [-limit, limit]: beyond
    // that, sums with it stop changing (an endless split loop) or overflow.
    void real(const char* section, const char* key, double v, double limit) const {
        if (std::isfinite(v) && std::fabs(v) <= limit) return;
        std::ostringstream m;
        m << key << " must be a finite number from " << -limit << " to " << limit;
        fail(section, key, m.str());
    }
    void fraction(const char* section, const char* key, double v) const {
        if (std::isfinite(v) && v >= 0.0 && v <= 1.0) return;
        fail(section, key, std::string(key) + " must be a number from 0 to 1");
    }

    void run() const;
    void classStructure() const;

  private:
    const DHC_SET& s_;
    const SettingOrigin& origin_;
    bool coreJudgesMetric_;
};

void Checker::run() const {
    const char* unsup = "UNSUPERVISED_MODE_CONF";
    const char* potts = "POTTS_MODEL";
    real(unsup, "SplitGainThreshold", s_.splitGainThreshold, kValueLimit);
    real(unsup, "MinRegionArea", s_.minSplitArea, kValueLimit);
    real(unsup, "DistortionThreshold", s_.distorsionThreshold, kValueLimit);
    real(unsup, "BlindSplitDepthMax", s_.blindDepth, kValueLimit);
    real(unsup, "BlindSplitAreaMin", s_.blindArea, kValueLimit);
    real(unsup, "BlindSplitMSEMin", s_.blindMSE, kValueLimit);
    if (s_.maxNumberOfClasses > kLabelSpace)
        fail(unsup, "MaxNumberOfClasses",
             "MaxNumberOfClasses must be at most " + std::to_string(kLabelSpace) + " (the label space)");

    real(potts, "BetaMin", s_.betaMin, kBetaLimit);
    real(potts, "BetaMax", s_.betaMax, kBetaLimit);
    real(potts, "BetaBound", s_.betaBound, kBetaLimit);
    if (s_.betaMin > s_.betaMax) {
        std::ostringstream m;
        m << "BetaMin must not exceed BetaMax (" << s_.betaMax << ")";
        fail(potts, "BetaMin", m.str());
    }
    real(potts, "RangeBandwidth", s_.rangeBandwidth, kValueLimit);
    real(potts, "SpatialBandwidth", s_.spatialBandwidth, kValueLimit);

    const char* meanShift = "MEANSHIFT";
    fraction(meanShift, "Tolerance", s_.tolerance);
    fraction(meanShift, "SkipLast", s_.skipLast);
    if (s_.autoAdjustkNN < 0 || s_.autoAdjustkNN > kMaxMultiplicity)
        fail(meanShift, "AutoAdjustKNN",
             "AutoAdjustKNN must be 0 to " + std::to_string(kMaxMultiplicity) + " (modes wanted)");

    if (s_.supervisedMode) {
        classStructure();
        return;
    }
    if (!s_.variableMultiplicity && s_.multiplicity < 2)
        fail(potts, "Multiplicity", "Multiplicity must be at least 2 (children per split)");
    if (s_.multiplicity > kMaxMultiplicity)
        fail(potts, "Multiplicity",
             "Multiplicity must be at most " + std::to_string(kMaxMultiplicity) + " (children per split)");
    const bool blindLimits = s_.blindDepth != 0.0 || s_.blindArea != 0.0 || s_.blindMSE != 0.0;
    if (s_.blind && !blindLimits && !coreJudgesMetric_ && (s_.metric < 0 || s_.metric > 8))
        fail(unsup, "Metric", "Metric must be 0 to 8");
}

// The class structure must describe a tree whose leaves are the classes.
void Checker::classStructure() const {
    const char* sup = "SUPERVISED_MODE_CONF";
    const int n = s_.numberOfClasses;
    if (n < 1) fail(sup, "NumberOfClasses", "NumberOfClasses must be at least 1 in supervised mode");
    if (n > kLabelSpace)
        fail(sup, "NumberOfClasses",
             "NumberOfClasses must be at most " + std::to_string(kLabelSpace) + " (the label space)");
    std::vector<std::vector<int>> list;
    long at = 0;
    for (int c = 0; c < n; ++c) {
        const int l = s_.structureLevels[c];
        if (l < 1) fail(sup, "StructureLevels", "every path length must be at least 1");
        list.emplace_back(s_.structurePaths + at, s_.structurePaths + at + l);
        at += l;
    }
    for (size_t i = 0; i < list.size(); ++i)
        for (size_t j = 0; j < list.size(); ++j) {
            if (i == j) continue;
            const auto& a = list[i];
            const auto& b = list[j];
            if (a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin()))
                fail(sup, "StructurePaths",
                     "class path " + std::to_string(i + 1) + (a.size() == b.size() ? " repeats" : " is a prefix of") +
                         " class path " + std::to_string(j + 1));
        }
    // Rebuild the tree the way the driver does: paths in lexicographic order,
    // each entry naming an existing child or the next new one.
    std::sort(list.begin(), list.end());
    std::vector<std::vector<size_t>> children(1);
    for (const auto& p : list) {
        size_t cur = 0;
        for (int e : p) {
            const int count = static_cast<int>(children[cur].size());
            if (e < 0 || e > count)
                fail(sup, "StructurePaths",
                     "path entry " + std::to_string(e) +
                         " skips a child index (paths must number children 0, 1, 2, ...)");
            if (e == count) {
                children[cur].push_back(children.size());
                children.emplace_back();
            }
            cur = children[cur][static_cast<size_t>(e)];
        }
    }
}

}  // namespace

void checkSettings(const DHC_SET& settings, const SettingOrigin& origin, bool coreJudgesMetric) {
    Checker(settings, origin, coreJudgesMetric).run();
}

}  // namespace dhc
