#include "workspace/PottsWS.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <vector>

#include "data/PottsMapRegion.h"
#include "settings/BandCount.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/Mixture.h"
#include "stats/OpMatrix.h"
#include "workspace/PixelSums.h"
#include "workspace/WSReport.h"

using namespace dhc::workspace;

// ---------------------------------------------------------------------------
// Construction

PottsWS::PottsWS() : PottsData() {
    init();
}

PottsWS::PottsWS(int label) : PottsData(label) {
    init();
}

PottsWS::PottsWS(ROI<int, xy>* roi_, int pad, int borderLabel, int label, int aux)
    : PottsData(roi_, pad, borderLabel, label, aux) {
    init();
}

PottsWS::PottsWS(int rows_, int cols_, int bands_, bool shuffle_, float percentage, char** bandFiles_,
                 int pad, int borderLabel, int aux)
    : PottsData(rows_, cols_, bands_, shuffle_, percentage, bandFiles_, pad, borderLabel, aux) {
    init();
}

PottsWS::PottsWS(int rows_, int cols_, int bands_, bool shuffle_, float percentage, int pad, int borderLabel,
                 int aux)
    : PottsData(rows_, cols_, bands_, shuffle_, percentage, pad, borderLabel, aux) {
    init();
}

PottsWS::PottsWS(bool shuffle_, float percentage, std::string hrawFile, int pad, int borderLabel, int aux)
    : PottsData(shuffle_, percentage, std::move(hrawFile), pad, borderLabel, aux) {
    init();
}

PottsWS::~PottsWS() {
    delete[] mi;
    dhc::deleteRows(sigma, bands);
    delete mixture;
    delete[] pixelIndex;
}

void PottsWS::init() {
    delete[] mi;
    dhc::deleteRows(sigma, bands);
    mi = nullptr;
    sigma = nullptr;
    if (bands > 0) {
        mi = new double[bands]();
        sigma = dhc::newRows<double>(bands, bands);
    }
    sqDeviation = 0.0;
    likelihoodEnergy = 0.0;
    edges = 0;
    delete mixture;
    mixture = nullptr;
    splitState = 0;
    processed = false;
    primaryGain = -1.0;
    textureBased = false;
}

// ---------------------------------------------------------------------------
// Whole-workspace statistics

double* PottsWS::getMi() {
    if (mi == nullptr) return nullptr;
    double* out = new double[bands];
    std::copy(mi, mi + bands, out);
    return out;
}

double** PottsWS::getSigma() {
    if (sigma == nullptr) return nullptr;
    return dhc::copyRows(sigma, bands, bands);
}

void PottsWS::setMi(double* m) {
    std::copy(m, m + bands, mi);
}

void PottsWS::setSigma(double** s) {
    dhc::copyRowsInto(s, sigma, bands, bands);
}

void PottsWS::updateMi() {
    meanOver(PixelScan{*this});
}

template <typename Scan>
void PottsWS::meanOver(const Scan& scan) {
    const int d = bands;
    std::fill(mi, mi + d, 0.0);
    cursor = 0;
    const ClassSums exact = classSums(
        scan, 1, d, [](int) { return 0; }, false);
    if (exact.doubleSumsExact(false)) {
        for (int b = 0; b < d; ++b) mi[b] = static_cast<double>(exact.sums[b]);
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            const int* x = scan.values(p);
            for (int b = 0; b < d; ++b) mi[b] += static_cast<double>(x[b]);
        }
    }
    scan.finish();
    const double n = std::max(scan.count(), 1);
    for (int b = 0; b < d; ++b) mi[b] /= n;
}

namespace {

bool sameBits(const std::vector<double>& key, const std::vector<double>& state) {
    return !key.empty() && key.size() == state.size() &&
           std::memcmp(key.data(), state.data(), key.size() * sizeof(double)) == 0;
}

}  // namespace

void PottsWS::updateSigma() {
    if (sameBits(sigmaKey_, sigmaState())) {
        PixelScan{*this}.finish();  // the cursor where a scan leaves it
        return;
    }
    sigmaOver(PixelScan{*this});
}

// The pixel count, mi and sigma (and the features), compared bit for bit
// (0.0 and -0.0 differ; a NaN matches the NaN of the same sums).
std::vector<double> PottsWS::sigmaState() const {
    std::vector<double> s;
    s.reserve(1 + static_cast<std::size_t>(bands) * (bands + 1) + 2);
    s.push_back(static_cast<double>(loadedCount));
    s.insert(s.end(), mi, mi + bands);
    for (int i = 0; i < bands; ++i) s.insert(s.end(), sigma[i], sigma[i] + bands);
    return s;
}

std::vector<double> PottsWS::featuresState() const {
    std::vector<double> s = sigmaState();
    s.push_back(sqDeviation);
    s.push_back(likelihoodEnergy);
    return s;
}

template <typename Scan>
void PottsWS::sigmaOver(const Scan& scan) {
    const int d = bands;
    zeroMatrix(sigma, d);
    cursor = 0;
    const ClassSums exact = classSums(
        scan, 1, d, [](int) { return 0; }, true);
    if (exact.doubleSumsExact(true)) {
        for (int i = 0; i < d; ++i)
            for (int j = i; j < d; ++j) sigma[i][j] = exact.products[0].at(i, j);
    } else {
        for (int p = 0; p < scan.count(); ++p) {
            const int* x = scan.values(p);
            // Products in double arithmetic, unlike the label forms.
            for (int i = 0; i < d; ++i)
                for (int j = i; j < d; ++j)
                    sigma[i][j] += static_cast<double>(x[i]) * static_cast<double>(x[j]);
        }
    }
    scan.finish();
    mirrorUpper(sigma, d);
    const double n = std::max(scan.count(), 1);
    for (int i = 0; i < d; ++i)
        for (int j = 0; j < d; ++j) sigma[i][j] = sigma[i][j] / n - mi[i] * mi[j];
    repairDegenerate(sigma, d);
    sigmaKey_ = sigmaState();
}

namespace {

// The sums of updateFeatures over the pixels in order, for a band count D
// fixed at compile time (0: d at run time), in the same order of operations.
template <int D, typename Scan>
void featureSums(const Scan& scan, int d, const double* mi, double** inverse, bool ok, double& sqDeviation,
                 double& mahalanobis) {
    if (D > 0) d = D;
    std::vector<double> mu(mi, mi + d), inv(static_cast<size_t>(d) * d), diff(d);
    for (int i = 0; i < d; ++i)
        std::copy(inverse[i], inverse[i] + d, inv.begin() + static_cast<ptrdiff_t>(i) * d);
    double sq = 0.0, m = 0.0;
    for (int p = 0; p < scan.count(); ++p) {
        const int* x = scan.values(p);
        for (int b = 0; b < d; ++b) {
            diff[b] = static_cast<double>(x[b]) - mu[b];
            sq += diff[b] * diff[b];
        }
        if (ok)
            for (int i = 0; i < d; ++i)
                for (int k = 0; k < d; ++k) m += diff[i] * inv[static_cast<size_t>(i) * d + k] * diff[k];
    }
    sqDeviation = sq;
    mahalanobis = m;
}

}  // namespace

void PottsWS::updateFeatures() {
    // Computed when the split made this child, from the same mi and sigma.
    if (valuesWithParent) return;
    if (sameBits(featuresKey_, featuresState())) {
        PixelScan{*this}.finish();
        return;
    }
    featuresOver(PixelScan{*this});
}

template <typename Scan>
void PottsWS::featuresOver(const Scan& scan) {
    const int d = bands;
    sqDeviation = 0.0;
    likelihoodEnergy = 0.0;
    if (d <= 0) return;
    double** work = getSigma();
    double** inverse = dhc::newRows<double>(d, d);
    int ok = 0;
    OpMatrix::inv(work, d, inverse, ok);
    double mahalanobis = 0.0;
    cursor = 0;
    dhc::withBandCount(
        d, [&](auto D) { featureSums<D(), Scan>(scan, d, mi, inverse, ok != 0, sqDeviation, mahalanobis); });
    scan.finish();
    if (ok) likelihoodEnergy = 0.5 * mahalanobis;
    dhc::deleteRows(work, d);
    dhc::deleteRows(inverse, d);
    featuresKey_ = featuresState();
}

// ---------------------------------------------------------------------------
// Mixture and debugging exports

void PottsWS::linkMixture(Mixture* m, int k, int* idx) {
    delete mixture;
    mixture = new Mixture(m, k, idx);
}

void PottsWS::exportMi(int k) {
    std::ofstream out("mi" + std::to_string(k) + ".dat", std::ios::out | std::ios::trunc);
    for (int b = 0; b < bands; ++b) out << mi[b] << " ";
}

void PottsWS::exportSigma(int k) {
    std::ofstream out("sigma" + std::to_string(k) + ".dat", std::ios::out | std::ios::trunc);
    for (int i = 0; i < bands; ++i) {
        for (int j = 0; j < bands; ++j) out << sigma[i][j] << " ";
        out << "\n";
    }
}

// ---------------------------------------------------------------------------
// Report

WSReport* PottsWS::getWSReport() {
    WSReport* r = new WSReport();
    r->WSLab = root->label;
    r->split = splitState == 2;
    r->textureBased = textureBased;
    if (r->split) {
        r->beta = beta;
        r->edges = edges;
        r->splitGainTFR = splitGain;
        // primaryGain always belongs to the method that made the split; the
        // report files it under that method's name.
        r->mixtureSplitGainTFR = textureBased ? primaryGain : secondaryGain;
        r->splitGainMRF = textureBased ? secondaryGain : primaryGain;
    }
    r->criterion = r->split ? criterion : std::numeric_limits<double>::quiet_NaN();
    r->refused = refused;
    r->refusedGain = refusedGain;
    r->refusedCriterion = refusedCriterion;
    r->area = root->area;
    r->totalLikelihoodEnergy = likelihoodEnergy;
    r->nBands = bands;
    r->mean = getMi();
    r->covariance = getSigma();
    return r;
}

// The statistics of a child whose values are still in its parent's list
// (WorkspaceSplit.cpp).
template void PottsWS::meanOver<IndexScan>(const IndexScan&);
template void PottsWS::sigmaOver<IndexScan>(const IndexScan&);
template void PottsWS::featuresOver<IndexScan>(const IndexScan&);
