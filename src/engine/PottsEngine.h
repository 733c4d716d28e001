#pragma once
// PottsEngine: the estimator that splits one workspace at a time under a
// K-class Potts Markov random field with Gaussian class likelihoods.
//
// Pipeline of an unsupervised split: kGLA (splitting Lloyd clustering) ->
// kEstMaxICM (alternating betaHat and ICM sweeps) -> betaHat -> PottsWS::split
// -> splitGain.  The supervised split labels by minimum energy against the
// likelihood table (kML) and refines with kSupervisedICM.
//
// Conventions shared by every routine:
//  - labels[0..K-1] are the map labels the K classes receive (the caller's);
//  - the pixels of a workspace are its loaded pixels, coords[0..loadedCount-1],
//    in list order; a label is written at map[x + pad][y + pad] of the
//    workspace's region (the shared label plane);
//  - ties in every arg-min / arg-max go to the lowest class index;
//  - arrays returned (means, modes, children, linked mixtures) are new[] and
//    belong to the caller (matrices row by row).
//
// Ownership: the engine owns globalMixture and energyTable.  ws, settings and
// configFile are views.  Not copyable (its owners are not).
//
// The split routines make their workspace the current one (ws) for their
// duration and clear it before returning.  kICM and betaHat work on the current
// workspace; a caller that uses them directly sets ws first.

#include <memory>
#include <vector>

class PottsWS;
class Mixture;
class PottsLikelihoodEnergy;
struct DHC_SET;

class PottsEngine {
  public:
    double betaMin = 0.0;         // lower end of the beta search interval ("BetaMin")
    double betaMax = 0.0;         // upper end ("BetaMax")
    double betaBound = 0.0;       // beta of marked pixels in adaptive mode ("BetaBound"); 0 when not adaptive
    double beta = 0.0;            // working interaction parameter, read by every ICM sweep
    bool adaptive = false;        // adaptive beta mode ("Adaptive")
    int multiplicity = 0;         // K, classes per split ("Multiplicity")
    double rangeBandwidth = 0.0;  // mean-shift range bandwidth ("RangeBandwidth")
    double spatialBandwidth = 0.0;           // mean-shift spatial bandwidth ("SpatialBandwidth")
    PottsWS* ws = nullptr;                   // current workspace (not owned)
    std::unique_ptr<Mixture> globalMixture;  // classes present in the last updateGlobalMixture workspace
    std::unique_ptr<PottsLikelihoodEnergy> energyTable;  // likelihood table of the supervised split
    char* configFile = nullptr;   // ini file the engine was read from, or null (not owned)
    DHC_SET* settings = nullptr;  // settings record the engine was built from, or null (not owned)

    // Read-only run figures for benchmarks and diagnostics; nothing reads them.
    // lastSweeps: ICM sweeps run by the last kICM call, or by all the passes of
    // the last kEstMaxICM / kSupervisedICM.  lastPasses: passes of the last
    // kEstMaxICM / kSupervisedICM (1 after a plain kICM).
    int lastSweeps = 0;
    int lastPasses = 0;
    // The children a split makes leave their values in the split workspace's
    // list (PottsWS::split) until the driver makes the split final.
    bool childValuesWithParent = false;
    // kGLA's Lloyd passes skip the pixels whose class provably stays; off,
    // every pass decides every pixel.  The result is the same either way.
    bool lloydSkips = true;
    // 0: a split's worth is its split gain alone.  1 (ICL) or 2 (BIC): every
    // split also gets its model-selection criterion (PottsWS::criterion).
    int stopCriterion = 0;

    PottsEngine();
    PottsEngine(int multiplicity, double betaMin, double betaMax, double betaBound, bool adaptive,
                double rangeBandwidth, double spatialBandwidth);
    // Values from the settings record; betaBound only when its adaptive flag is set (else 0.0).
    explicit PottsEngine(DHC_SET* s);
    // Section "POTTS_MODEL" of the ini file: "Multiplicity", "BetaMin", "BetaMax",
    // "Adaptive", "BetaBound" (only when adaptive), "RangeBandwidth", "SpatialBandwidth".
    explicit PottsEngine(char* file);
    ~PottsEngine();

    void setConfig(int multiplicity, double betaMin, double betaMax, double betaBound, bool adaptive,
                   double rangeBandwidth, double spatialBandwidth);
    void setConfig(int multiplicity);

    // ---- Clustering ----
    // Makes ws current and rebuilds globalMixture from the labels present in its
    // region (label 0, unassigned, is not a class); returns Mixture::updateInv().
    bool updateGlobalMixture(PottsWS& ws);
    // K-class splitting Lloyd clustering; returns the K codewords (K x d).
    // splitState 1, or -1 when a class ran empty (region relabelled with its own label).
    double** kGLA(PottsWS* ws, int* labels);
    // Minimum-energy labelling against energy[c][p]; returns the K class means.
    // splitState 1, or -1 when the 32-bit product of the class counts is 0.
    double** kML(PottsWS* ws, int* labels, double** energy);

    // ---- ICM and beta ----
    // ICM on the current workspace with Gaussian energies from the class
    // covariances and `means` (K x d, overwritten with the new class means).
    // 2 = success, -2 = singular class covariance or empty class.
    int kICM(double** means, int* labels);
    // The same against the caller's table energy[c][p].
    int kICM(double** means, int* labels, double** energy);
    // betaHat and kICM alternated until beta settles; the last kICM result.
    int kEstMaxICM(double** means, int* labels);
    // betaHat and table kICM alternated until the means settle; the last kICM result.
    int kSupervisedICM(double** means, int* labels, double** energy);
    // Pseudo-likelihood estimate of beta in [betaMin, betaMax] for the current labelling.
    double betaHat(int* labels);
    // Replaces energyTable by a table of the n classes over the current workspace.
    void updateLikelihoodEnergy(Mixture** classes, int n);

    // ---- Splits (children: new array of K new workspaces, or null) ----
    // Unsupervised: kGLA, kEstMaxICM, betaHat, PottsWS::split, gain.
    PottsWS** split(PottsWS* ws, int* labels, bool altGain, double threshold);
    // From caller-given class means (K x d; the caller keeps them, they receive
    // the class means of the last ICM pass).
    PottsWS** split(PottsWS* ws, int* labels, double** means, bool altGain, double threshold);
    // Labelling given by parts: every pixel of parts[i] gets labels[classOf[i]]; K = k.
    PottsWS** split(PottsWS* ws, int* labels, PottsWS** parts, int nParts, int* classOf, int k, bool altGain,
                    double threshold);
    // Supervised: class c is the mixture classes[c], linked to globalMixture
    // (its linkIndex names global classes).  Needs energyTable with one row per
    // global class, in globalMixture's order (updateLikelihoodEnergy over the
    // root with the one-class models of the global classes 0, 1, ...).  Child c
    // receives its own linked mixture over the same global classes as
    // classes[c]; the caller keeps ownership of classes.
    PottsWS** split(PottsWS* ws, int* labels, Mixture** classes);
    // Cuts the region into its connected pieces (piece i gets labels[i]); null when connected.
    PottsWS** fragment(PottsWS* ws, int* labels, int n);

    // Per-pixel, per-band likelihood gain less the Potts cost of the separated pairs.
    double splitGain(PottsWS* ws, int k, PottsWS** children);
    // Variance-based score: N times the largest band variance (the largest
    // eigenvalue when threshold exceeds that).
    double splitGain(PottsWS* ws, int k, PottsWS** children, double threshold);
    // The model-selection criterion of a split: dhc::splitCriterion (engine/SplitCriterion.h).
    // Likelihood gain from the partition `before` to the partition `after` of ws.
    double textureGain(PottsWS* ws, PottsWS** before, int nBefore, PottsWS** after, int nAfter);
    // k linked mixtures over globalMixture: class c gathers the global classes j
    // with assign[j] == c (null when none does).
    Mixture** generateLinkedMixtures(int* assign, int k);

    // Number of classes by mean-shift mode seeking on at most 3000 sample
    // pixels; sets multiplicity to the number of modes.  2 <= k <= 8: returns
    // the k modes (with `label`, the map is relabelled by maximum likelihood from
    // the modes' sample points and the modes are the class means; splitState 1).
    // Otherwise k = 1, splitState -1, null.  Progress lines go to dhc::out();
    // modes are numbered from 0 in the "Mode #" lines.
    //
    // The mean shift runs on the first min(d, 3) principal components of the
    // samples.  Without `label` the modes come back to data units as
    // m_b * s_b + mu_b on those coordinates (s, mu: per-band standard deviation
    // and mean of the samples) and mu_b on any further band.
    //
    // Without `label` a file-backed workspace reloads all its pixel values.  A
    // workspace whose values live in memory only (built from a region of
    // interest, or a child of one) has no file to reload from and already holds
    // every pixel: its values are kept as they are.
    double** MS_K_est(PottsWS* ws, int& k, bool label);

  private:
    template <typename EnergyAt>
    int sweeps(int* labels, int k, int* classOf, EnergyAt energyAt);
    // kICM(means, labels) with the pixels' classes in classOf: read from the map
    // first unless classesKnown, and left as the sweeps set them.
    int kICM(double** means, int* labels, std::vector<int>& classOf, bool classesKnown);
    double betaHat(int* labels, int k);
    PottsWS** icmAndSplit(PottsWS* w, int* labels, double** means, bool altGain, double threshold);
    PottsWS** makeChildren(PottsWS* w, int* labels, int k, bool altGain, double threshold);
};
