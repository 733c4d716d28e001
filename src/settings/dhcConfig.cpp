#include "settings/dhcConfig.h"

#include <memory>
#include <string>

#include "mex/mxGrip.h"

namespace {

bool asBool(double v) {
    return v != 0.0;
}

// An integer setting, truncated toward zero; NaN, infinities and values past
// the int range have no integer to become.
int intSetting(const mxArray* object, const char* name) {
    return mxgrip_detail::element<int>(mxScalar(object, name), [name] { return std::string("\"") + name + "\""; });
}

}  // namespace

DHC_SET* dhcConfig(const mxArray* settings) {
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
    set->growDepth = intSetting(unsup, "growDepth");
    set->doubleSplit = asBool(mxScalar(unsup, "doubleSplit"));
    set->splitwiseDisconnect = asBool(mxScalar(unsup, "splitwiseDisconnect"));
    set->multiplicity = intSetting(unsup, "multiplicity");

    const mxArray* classic = classicSet.get();
    set->splitGainThreshold = mxScalar(classic, "splitGainThreshold");
    set->maxNumberOfClasses = intSetting(classic, "maxNumberOfClasses");
    set->minSplitArea = mxScalar(classic, "minSplitArea");

    const mxArray* blind = blindSet.get();
    set->metric = intSetting(blind, "metric");
    set->distorsionThreshold = mxScalar(blind, "distorsionThreshold");
    set->blindActive = asBool(mxScalar(blind, "active"));
    set->blindDepth = mxScalar(blind, "depth");
    set->blindMSE = mxScalar(blind, "MSE");
    set->blindArea = mxScalar(blind, "area");
    // The stopping limits are in force exactly when one of them is set; the
    // "active" switch only documents the intent and is overridden here.
    set->updateBlindActive();

    if (set->supervisedMode) {
        // Read in supervised runs only: unsupervised settings may leave it out.
        const MxValue supSet = mxRequiredProperty(settings, "supSet");
        const mxArray* sup = supSet.get();
        set->numberOfClasses = intSetting(sup, "numberOfClasses");
        int nLevels = 0;
        int nPaths = 0;
        const MxValue levels = mxRequiredNumericProperty(sup, "structureLevels");
        const MxValue paths = mxRequiredNumericProperty(sup, "structurePaths");
        set->structureLevels = readMxVector<int>(levels.get(), nLevels, "structureLevels");
        set->structurePaths = readMxVector<int>(paths.get(), nPaths, "structurePaths");
        // The driver walks numberOfClasses levels and their paths without
        // bounds; refuse a structure that would make it read past the arrays.
        long needed = 0;
        bool ok = set->numberOfClasses <= nLevels;
        for (int c = 0; ok && c < set->numberOfClasses; ++c) {
            ok = set->structureLevels[c] >= 0;
            needed += set->structureLevels[c];
        }
        if (!ok || needed > nPaths)
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
    set->autoAdjustkNN = intSetting(engine, "autoAdjustkNN");
    set->skipLast = mxScalar(engine, "skipLast");
    set->tolerance = mxScalar(engine, "tolerance");
    set->kernelType = intSetting(engine, "kernelType");
    return set.release();
}
