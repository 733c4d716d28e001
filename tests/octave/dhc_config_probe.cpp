// Test-only MEX module: s = dhc_config_probe(settings) returns the DHC_SET that
// dhcConfig makes of a settings object, one field per record member, so the
// Octave tests can check the conversions without running a segmentation.
// s = dhc_config_probe('file.ini') returns the record read from an ini file,
// for comparing the two ways of filling it.

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "mex.h"
#include "mex/mxGrip.h"
#include "settings/DHC_SET.h"
#include "settings/dhcConfig.h"

namespace {

mxArray* toStruct(const DHC_SET& s) {
    const char* names[] = {"maxLabels",
                           "supervisedMode",
                           "variableMultiplicity",
                           "splitGainThreshold",
                           "maxNumberOfClasses",
                           "minSplitArea",
                           "blind",
                           "metric",
                           "distorsionThreshold",
                           "balancedTree",
                           "growDepth",
                           "doubleSplit",
                           "fragmentation",
                           "splitwiseDisconnect",
                           "blindActive",
                           "blindDepth",
                           "blindMSE",
                           "blindArea",
                           "numberOfClasses",
                           "structureLevels",
                           "structurePaths",
                           "multiplicity",
                           "adaptive",
                           "betaMin",
                           "betaMax",
                           "betaBound",
                           "rangeBandwidth",
                           "spatialBandwidth",
                           "autoAdjustkNN",
                           "skipLast",
                           "tolerance",
                           "kernelType"};
    const int n = sizeof names / sizeof names[0];
    mxArray* out = mxCreateStructMatrix(1, 1, n, names);
    const double values[] = {double(s.maxLabels),
                             double(s.supervisedMode),
                             double(s.variableMultiplicity),
                             s.splitGainThreshold,
                             double(s.maxNumberOfClasses),
                             s.minSplitArea,
                             double(s.blind),
                             double(s.metric),
                             s.distorsionThreshold,
                             double(s.balancedTree),
                             double(s.growDepth),
                             double(s.doubleSplit),
                             double(s.fragmentation),
                             double(s.splitwiseDisconnect),
                             double(s.blindActive),
                             s.blindDepth,
                             s.blindMSE,
                             s.blindArea,
                             double(s.numberOfClasses),
                             0.0,
                             0.0,
                             double(s.multiplicity),
                             double(s.adaptive),
                             s.betaMin,
                             s.betaMax,
                             s.betaBound,
                             s.rangeBandwidth,
                             s.spatialBandwidth,
                             double(s.autoAdjustkNN),
                             s.skipLast,
                             s.tolerance,
                             double(s.kernelType)};
    // Scalars here; the two structure arrays below (mxSetField does not free
    // a value it replaces, so each field is set once).
    for (int i = 0; i < n; ++i)
        if (std::strncmp(names[i], "structure", 9) != 0)
            mxSetField(out, 0, names[i], mxCreateDoubleScalar(values[i]));
    // The arrays' lengths are not kept in the record: return what the
    // structure needs, numberOfClasses levels and their sum of path entries.
    auto vector = [](const int* v, int len) {
        mxArray* a = mxCreateDoubleMatrix(1, len, mxREAL);
        for (int i = 0; i < len; ++i) mxGetPr(a)[i] = v[i];
        return a;
    };
    if (s.structureLevels != nullptr) {
        int sum = 0;
        for (int c = 0; c < s.numberOfClasses; ++c) sum += s.structureLevels[c];
        mxSetField(out, 0, "structureLevels", vector(s.structureLevels, s.numberOfClasses));
        mxSetField(out, 0, "structurePaths", vector(s.structurePaths, sum));
    } else {
        mxSetField(out, 0, "structureLevels", mxCreateDoubleMatrix(0, 0, mxREAL));
        mxSetField(out, 0, "structurePaths", mxCreateDoubleMatrix(0, 0, mxREAL));
    }
    return out;
}

}  // namespace

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    if (nrhs != 1 || nlhs > 1) mexErrMsgTxt("usage: s = dhc_config_probe(settings)");
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
