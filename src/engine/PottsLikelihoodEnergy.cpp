#include "engine/PottsLikelihoodEnergy.h"

#include <cmath>
#include <cstddef>
#include <memory>

#include "settings/RowMatrix.h"
#include "stats/Mixture.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"

PottsLikelihoodEnergy::PottsLikelihoodEnergy(Mixture** classes, int n, PottsWS* ws)
    : energy(n, ws->envelopeCount), nClasses(n), nPixels(ws->envelopeCount) {
    update(classes, ws);
}

PottsLikelihoodEnergy::PottsLikelihoodEnergy(PottsWS** wss, int n) : nClasses(n) {
    for (int j = 0; j < n; ++j) nPixels += wss[j]->envelopeCount;
    energy = dhc::Grid<double>(n, nPixels);
    update(wss);
}

void PottsLikelihoodEnergy::update(Mixture** classes, PottsWS* ws) {
    const int d = ws->bands;
    const int loaded = ws->loadedCount < nPixels ? ws->loadedCount : nPixels;
    for (int i = 0; i < nClasses; ++i) {
        Mixture* m = classes[i];
        if (m == nullptr || m->k < 1) continue;
        double** mu = m->getMiCopy();
        double*** sInv = m->getSigmaInvCopy();
        const std::unique_ptr<double[]> ld(m->getLogdetCopy());
        double* row = energy[i];
        for (int p = 0; p < loaded; ++p)
            row[p] = gaussianEnergy(ws->data + static_cast<std::size_t>(p) * d, mu[0], sInv[0], ld[0], d);
        // Further components replace the energy only where strictly smaller.
        for (int c = 1; c < m->k; ++c) {
            for (int p = 0; p < loaded; ++p) {
                const double e =
                    gaussianEnergy(ws->data + static_cast<std::size_t>(p) * d, mu[c], sInv[c], ld[c], d);
                if (e < row[p]) row[p] = e;
            }
        }
        for (int c = 0; c < m->k; ++c) dhc::deleteRows(sInv[c], d);
        delete[] sInv;
        dhc::deleteRows(mu, m->k);
    }
}

void PottsLikelihoodEnergy::update(PottsWS** wss) {
    for (int i = 0; i < nClasses; ++i) {
        PottsWS* model = wss[i];
        const int d = model->bands;
        double** sInv = dhc::newRows<double>(d, d);
        int ok = 0;
        OpMatrix::inv(model->sigma, d, sInv, ok);
        const double logdet = ok ? OpMatrix::ldet(model->sigma, d) : 0.0;
        double* row = energy[i];
        int offset = 0;
        for (int j = 0; j < nClasses; ++j) {
            PottsWS* w = wss[j];
            for (int p = 0; p < w->loadedCount; ++p)
                row[offset + p] = ok ? gaussianEnergy(w->data + static_cast<std::size_t>(p) * w->bands,
                                                      model->mi, sInv, logdet, d)
                                     : HUGE_VAL;
            offset += w->envelopeCount;
        }
        dhc::deleteRows(sInv, d);
    }
}

double** PottsLikelihoodEnergy::get(PottsWS* ws, int** groups, int* sizes, int n) {
    const int count = ws->envelopeCount;
    double** out = dhc::newRows<double>(n, count);
    for (int g = 0; g < n; ++g) {
        double* dst = out[g];
        const int* members = groups[g];
        for (int p = 0; p < count; ++p) {
            const int col = ws->pixelIndex != nullptr ? ws->pixelIndex[p] : p;
            double best = sizes[g] > 0 ? energy[members[0]][col] : HUGE_VAL;
            for (int s = 1; s < sizes[g]; ++s) {
                const double e = energy[members[s]][col];
                if (e < best) best = e;
            }
            dst[p] = best;
        }
    }
    return out;
}

double PottsLikelihoodEnergy::dLE(int i, int j, int* pixels, int n) {
    if (n < 1) return 0.0;
    double sum = 0.0;
    for (int q = 0; q < n; ++q) sum += energy[i][pixels[q]] - energy[j][pixels[q]];
    return sum / n;
}

double PottsLikelihoodEnergy::dLE_square(int i, int j, int* pixels, int n) {
    if (n < 1) return 0.0;
    double sum = 0.0;
    for (int q = 0; q < n; ++q) {
        const double diff = energy[i][pixels[q]] - energy[j][pixels[q]];
        sum += diff * diff;
    }
    return sum / n;
}
