#include "settings/dhcConfig.h"

#include <memory>
#include <string>

#include "mex/mxGrip.h"

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

// A numeric property that may be absent (0 then).
double optionalScalar(const mxArray* object, const char* name) {
    if (!mxProperty(object, name)) return 0.0;
    return mxScalar(object, name);
}

}  // namespace

DHC_SET* dhcConfig(const mxArray* settings, std::vector<int>* levelsOut, std::vector<int>* pathsOut) {
    auto set = std::make_unique<DHC_SET>();

    const MxValue unsupSet = mxRequiredProperty(settings, "unsupSet");
    const MxValue engineSet = mxRequiredProperty(settings, "engineSet");
    set->supervisedMode = asBool(mxScalar(settings, "supervisedMode"));
    set->fragmentation = asBool(mxScalar(settings, "fragmentation"));

    const mxArray* unsup = unsupSet.get();
    const MxValue classicSet = mxRequiredProperty(unsup, "classicSet");
    const MxValue blindSet = mxRequiredProperty(unsup, "blindSet");
    set->variableMultiplicity = asBool(mxScalar(unsup, "variableMultiplicity"));
    set->blind = asBool(mxScalar(unsup, "blind"));
    set->balancedTree = asBool(mxScalar(unsup, "balancedTree"));
    set->growDepth = asInt(mxScalar(unsup, "growDepth"), "unsupSet.growDepth");
    set->doubleSplit = asBool(mxScalar(unsup, "doubleSplit"));
    set->splitwiseDisconnect = asBool(mxScalar(unsup, "splitwiseDisconnect"));
    set->multiplicity = asInt(mxScalar(unsup, "multiplicity"), "unsupSet.multiplicity");

    const mxArray* classic = classicSet.get();
    set->splitGainThreshold = mxScalar(classic, "splitGainThreshold");
    set->maxNumberOfClasses =
        asInt(mxScalar(classic, "maxNumberOfClasses"), "unsupSet.classicSet.maxNumberOfClasses");
    set->minSplitArea = mxScalar(classic, "minSplitArea");
    // Settings added later are optional: an object or struct without them
    // runs the behaviour they switch on only when set.
    set->stopCriterion = asInt(optionalScalar(classic, "stopCriterion"), "unsupSet.classicSet.stopCriterion");
    set->finalRefinement = asInt(optionalScalar(unsup, "finalRefinement"), "unsupSet.finalRefinement");

    const mxArray* blind = blindSet.get();
    set->metric = asInt(mxScalar(blind, "metric"), "unsupSet.blindSet.metric");
    set->distorsionThreshold = mxScalar(blind, "distorsionThreshold");
    set->blindActive = asBool(mxScalar(blind, "active"));
    set->blindDepth = mxScalar(blind, "depth");
    set->blindMSE = mxScalar(blind, "MSE");
    set->blindArea = mxScalar(blind, "area");
    // The stopping limits are in force exactly when one of them is set; the
    // "active" switch only documents the intent and is overridden here.
    set->updateBlindActive();

    if (set->supervisedMode) {
        const MxValue supSet = mxRequiredProperty(settings, "supSet");
        const mxArray* sup = supSet.get();
        set->numberOfClasses = asInt(mxScalar(sup, "numberOfClasses"), "supSet.numberOfClasses");
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

    const mxArray* engine = engineSet.get();
    set->adaptive = asBool(mxScalar(engine, "adaptive"));
    set->betaMin = mxScalar(engine, "betaMin");
    set->betaMax = mxScalar(engine, "betaMax");
    set->betaBound = mxScalar(engine, "betaBound");
    set->rangeBandwidth = mxScalar(engine, "rangeBandwidth");
    set->spatialBandwidth = mxScalar(engine, "spatialBandwidth");
    set->autoAdjustkNN = asInt(mxScalar(engine, "autoAdjustkNN"), "engineSet.autoAdjustkNN");
    set->skipLast = mxScalar(engine, "skipLast");
    set->tolerance = mxScalar(engine, "tolerance");
    set->kernelType = asInt(mxScalar(engine, "kernelType"), "engineSet.kernelType");
    return set.release();
}
