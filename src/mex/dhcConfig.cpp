#include "mex/dhcConfig.h"

#include <map>
#include <memory>
#include <string>

#include "mex/mxGrip.h"
#include "settings/SettingsTable.h"

namespace {

bool asBool(double v) {
    return v != 0.0;
}
// Truncated toward zero; a value no int can hold is refused (the cast would be undefined).
int asInt(double v, const char* name) {
    if (!(v > -2147483649.0 && v < 2147483648.0)) {
        throw MxError("dhc:badSetting",
                      std::string(name) + " must be an integer in the int32 range, not " + mxNumberText(v));
    }
    return static_cast<int>(v);
}

// The objects of a settings object, by path ("unsupSet.classicSet"; "" is
// the object itself), each looked up once; a missing one is refused.
class Objects {
  public:
    explicit Objects(const mxArray* top) : top_(top) {}
    const mxArray* of(const std::string& path) {
        if (path.empty()) return top_;
        const auto found = objects_.find(path);
        if (found != objects_.end()) return found->second.get();
        const size_t dot = path.rfind('.');
        const mxArray* parent = of(dot == std::string::npos ? std::string() : path.substr(0, dot));
        const std::string name = dot == std::string::npos ? path : path.substr(dot + 1);
        return objects_.emplace(path, mxRequiredProperty(parent, name.c_str())).first->second.get();
    }

  private:
    const mxArray* top_;
    std::map<std::string, MxValue> objects_;
};

// A numeric property that may be absent (0 then).
double optionalScalar(const mxArray* object, const char* name) {
    if (!mxProperty(object, name)) return 0.0;
    return mxScalar(object, name);
}

}  // namespace

DHC_SET* dhcConfig(const mxArray* settings, std::vector<int>* levelsOut, std::vector<int>* pathsOut) {
    auto set = std::make_unique<DHC_SET>();
    Objects objects(settings);
    // Every setting but the class structure's lists, by its property path;
    // the supervised ones ("supSet") in supervised runs only.
    for (const dhc::SettingRow& row : dhc::settingsTable()) {
        const std::string path = row.property;
        const size_t dot = path.rfind('.');
        const std::string owner = dot == std::string::npos ? std::string() : path.substr(0, dot);
        if (row.kind == dhc::SettingKind::IntArray || (owner == "supSet" && !set->supervisedMode)) continue;
        const mxArray* object = objects.of(owner);
        const char* leaf = dhc::propertyLeaf(row);
        const double value = row.optionalProperty ? optionalScalar(object, leaf) : mxScalar(object, leaf);
        switch (row.kind) {
            case dhc::SettingKind::Flag:
                set.get()->*row.flag = asBool(value);
                break;
            case dhc::SettingKind::Int:
                set.get()->*row.integer = asInt(value, row.property);
                break;
            case dhc::SettingKind::Double:
                set.get()->*row.real = value;
                break;
            case dhc::SettingKind::IntArray:
                break;
        }
    }
    // The stopping limits are in force exactly when one of them is set; the
    // "active" switch only documents the intent and is overridden here.
    set->blindActive = asBool(mxScalar(objects.of("unsupSet.blindSet"), "active"));
    set->updateBlindActive();

    if (set->supervisedMode) {
        const mxArray* sup = objects.of("supSet");
        int nLevels = 0;
        int nPaths = 0;
        const MxValue levels = mxRequiredNumericProperty(sup, "structureLevels");
        const MxValue paths = mxRequiredNumericProperty(sup, "structurePaths");
        mxCheckIntValues(levels.get(), "structureLevels");
        mxCheckIntValues(paths.get(), "structurePaths");
        set->structureLevels = readMxVector<int>(levels.get(), nLevels);
        set->structurePaths = readMxVector<int>(paths.get(), nPaths);
        if (levelsOut != nullptr && pathsOut != nullptr) {
            levelsOut->assign(set->structureLevels, set->structureLevels + nLevels);
            pathsOut->assign(set->structurePaths, set->structurePaths + nPaths);
        }
        // The driver walks numberOfClasses levels and their paths without
        // bounds; refuse a structure that would make it read past the arrays.
        long needed = 0;
        bool ok = set->numberOfClasses <= nLevels;
        for (int c = 0; ok && c < set->numberOfClasses; ++c) {
            ok = set->structureLevels[c] >= 0;
            needed += set->structureLevels[c];
        }
        if ((!ok || needed > nPaths) && levelsOut == nullptr)
            throw MxError("dhc:badStructure",
                          "supSet: structureLevels needs numberOfClasses non-negative entries and "
                          "structurePaths as many entries as their sum");
    }

    return set.release();
}
