#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "data/PottsMapRegion.h"
#include "engine/EngineSupport.h"
#include "engine/PottsEngine.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"

// What a split is worth: the likelihood gain, the variance score and the
// texture gain (the model-selection criterion is SplitCriterion.cpp's).

using namespace dhc::engine;

// ---------------------------------------------------------------------------
// Gains

double PottsEngine::splitGain(PottsWS* w, int k, PottsWS** children) {
    beta = w->beta;
    const int d = w->bands;
    const double n = w->envelopeCount;
    w->updateSigma();
    const double logdet = OpMatrix::ldet(w->sigma, d);
    std::vector<double> childLogdet(k);
    for (int i = 0; i < k; ++i) childLogdet[i] = OpMatrix::ldet(children[i]->sigma, d);
    const double e = w->edges;
    w->updateFeatures();
    for (int i = 0; i < k; ++i) children[i]->updateFeatures();

    double after = 0.0;
    for (int i = 0; i < k; ++i)
        after += 0.5 * children[i]->envelopeCount * childLogdet[i] + children[i]->likelihoodEnergy;
    const double g = 0.5 * n * logdet + w->likelihoodEnergy - after;
    return (g / d - e * beta) / n;
}

double PottsEngine::splitGain(PottsWS* w, int k, PottsWS** children, double threshold) {
    beta = w->beta;
    const int d = w->bands;
    const double n = w->envelopeCount;
    w->updateSigma();
    w->updateFeatures();
    for (int i = 0; i < k; ++i) children[i]->updateFeatures();

    double largest = 0.0;
    for (int b = 0; b < d; ++b)
        if (b == 0 || w->sigma[b][b] > largest) largest = w->sigma[b][b];
    double v = n * largest;
    if (threshold > v) {
        double** u = nullptr;
        double* lambda = nullptr;
        if (d >= 1) {
            OpMatrix::eig(w->sigma, d, 1, u, lambda);
            v = n * lambda[0];
            dhc::deleteRows(u, d);
            delete[] lambda;
        }
    }
    return v;
}

double PottsEngine::textureGain(PottsWS* w, PottsWS** before, int nBefore, PottsWS** after, int nAfter) {
    beta = w->beta;
    const double e = w->edges;
    const int d = w->bands;
    auto energyOf = [d](PottsWS** parts, int count) {
        double sum = 0.0;
        for (int i = 0; i < count; ++i) {
            parts[i]->updateSigma();
            const double logdet = OpMatrix::ldet(parts[i]->sigma, d);
            parts[i]->updateFeatures();
            sum += 0.5 * parts[i]->envelopeCount * logdet + parts[i]->likelihoodEnergy;
        }
        return sum;
    };
    const double g = energyOf(before, nBefore) - energyOf(after, nAfter);
    const double n = w->envelopeCount;
    return (g / d - e * beta) / n;
}
