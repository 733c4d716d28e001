#pragma once
// PottsLikelihoodEnergy: a table of per-pixel class energies, one row per
// class, one column per pixel.  The energy of pixel x for a Gaussian (mu, S) is
// E = 1/2 (log|S| + (x - mu)' S^-1 (x - mu)); a class made of several Gaussians
// takes the smallest component energy.
//
// Built over one workspace (columns = its pixel list; loaded pixels are
// filled, the rest stay 0) or over several workspaces (their pixel lists
// concatenated in order, each workspace's own Gaussian being one class).  A
// table over the root serves every descendant: a workspace with a pixelIndex
// reads column pixelIndex[p] for its pixel p.
//
// Owns its table; not copyable.

#include "base/Grid.h"

class Mixture;
class PottsWS;

class PottsLikelihoodEnergy {
  public:
    dhc::Grid<double> energy;  // nClasses rows of nPixels
    int nClasses = 0;
    int nPixels = 0;

    // n rows x ws->envelopeCount columns, filled by update(classes, ws).
    PottsLikelihoodEnergy(Mixture** classes, int n, PottsWS* ws);
    // n rows x the sum of the workspaces' envelopeCount, filled by update(wss).
    PottsLikelihoodEnergy(PottsWS** wss, int n);

    // Row i = energies of the mixture classes[i] (its inverses must exist) at the
    // loaded pixels of ws.
    void update(Mixture** classes, PottsWS* ws);
    // Row i = energies of workspace i's Gaussian (mi, sigma) at every loaded
    // pixel of the nClasses workspaces; +infinity when its sigma is singular.
    void update(PottsWS** wss);

    // New n x ws->envelopeCount table: group g at pixel p is the smallest energy
    // among the classes groups[g][0..sizes[g]-1] (first strictly smaller wins).
    double** get(PottsWS* ws, int** groups, int* sizes, int n);
    // Mean of energy[i][p] - energy[j][p] over the n listed pixels; 0.0 for n < 1.
    double dLE(int i, int j, int* pixels, int n);
    // Mean of the squared differences; 0.0 for n < 1.
    double dLE_square(int i, int j, int* pixels, int n);

    // Energy of the d band values x for the Gaussian with mean mu, inverse
    // covariance sInv and log-determinant logdet (the one formula every energy
    // of the engine uses; inline, it runs once per pixel and class).
    static double gaussianEnergy(const int* x, const double* mu, double** sInv, double logdet, int d) {
        constexpr int kBuffer = 16;  // bands are few: differences on the stack
        double diff[kBuffer];
        double q = 0.0;
        if (d <= kBuffer) {
            for (int i = 0; i < d; ++i) diff[i] = static_cast<double>(x[i]) - mu[i];
            for (int i = 0; i < d; ++i) {
                const double di = diff[i];
                const double* row = sInv[i];
                for (int k = 0; k < d; ++k) q += di * row[k] * diff[k];
            }
        } else {
            for (int i = 0; i < d; ++i) {
                const double di = static_cast<double>(x[i]) - mu[i];
                const double* row = sInv[i];
                for (int k = 0; k < d; ++k) q += di * row[k] * (static_cast<double>(x[k]) - mu[k]);
            }
        }
        return 0.5 * (logdet + q);
    }
};
