// Test-only MEX module: r = dhc_config_probe(settings) returns the DHC_SET that
// dhcConfig makes of a settings object, one field per record member, so the
// conversions are checked without a segmentation; dhc_config_probe('file.ini')
// returns the record read from an ini file.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "mex.h"
#include "mex/mxGrip.h"
#include "settings/DHC_SET.h"
#include "mex/dhcConfig.h"

// The record's scalar members.
// clang-format off
#define DHC_SET_SCALARS(X)                                                                       \
    X(maxLabels) X(supervisedMode) X(variableMultiplicity) X(splitGainThreshold)                 \
    X(maxNumberOfClasses) X(minSplitArea) X(blind) X(metric) X(distorsionThreshold)              \
    X(balancedTree) X(growDepth) X(doubleSplit) X(fragmentation) X(splitwiseDisconnect)          \
    X(blindActive) X(blindDepth) X(blindMSE) X(blindArea) X(numberOfClasses) X(multiplicity)     \
    X(adaptive) X(betaMin) X(betaMax) X(betaBound) X(rangeBandwidth) X(spatialBandwidth)         \
    X(autoAdjustkNN) X(skipLast) X(tolerance) X(kernelType)
// clang-format on

namespace {

mxArray* row(const int* v, int n) {
    mxArray* a = mxCreateDoubleMatrix(v != nullptr ? 1 : 0, v != nullptr ? n : 0, mxREAL);
    for (int i = 0; v != nullptr && i < n; ++i) mxGetPr(a)[i] = v[i];
    return a;
}

mxArray* toStruct(const DHC_SET& s) {
    std::vector<const char*> names;
    std::vector<double> values;
#define DHC_ADD(member) names.push_back(#member), values.push_back(static_cast<double>(s.member));
    DHC_SET_SCALARS(DHC_ADD)
#undef DHC_ADD
    names.push_back("structureLevels");
    names.push_back("structurePaths");
    mxArray* out = mxCreateStructMatrix(1, 1, static_cast<int>(names.size()), names.data());
    for (size_t i = 0; i < values.size(); ++i) mxSetField(out, 0, names[i], mxCreateDoubleScalar(values[i]));
    // The record keeps no lengths: the structure has numberOfClasses levels
    // and as many path entries as their sum.
    int paths = 0;
    for (int c = 0; s.structureLevels != nullptr && c < s.numberOfClasses; ++c) paths += s.structureLevels[c];
    mxSetField(out, 0, "structureLevels", row(s.structureLevels, s.numberOfClasses));
    mxSetField(out, 0, "structurePaths", row(s.structurePaths, paths));
    return out;
}

}  // namespace

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    if (nrhs != 1 || nlhs > 1) mexErrMsgTxt("usage: r = dhc_config_probe(settings or 'file.ini')");
    // The error is raised once the record is released.
    static char id[64], text[1024];
    try {
        std::unique_ptr<DHC_SET> set;
        if (mxIsChar(prhs[0])) {
            char* name = mxArrayToString(prhs[0]);
            const std::string fileName(name);
            mxFree(name);
            set.reset(new DHC_SET(fileName));
        } else {
            set.reset(dhcConfig(prhs[0]));
        }
        plhs[0] = toStruct(*set);
        return;
    } catch (const MxError& e) {
        snprintf(id, sizeof id, "%s", e.id().c_str());
        snprintf(text, sizeof text, "%s", e.what());
    }
    mexErrMsgIdAndTxt(id, "%s", text);
}
