#pragma once
// PottsWS: a workspace, one region of the segmentation hierarchy.
//
// A workspace is image data restricted to one region (it derives from
// PottsData: band values, pixel list, the region `root` in the shared label
// map) plus what the splitter knows about it: the Gaussian statistics of the
// region as one class (mi, sigma), the energies, the class model of its split
// and the scores the engine left on it.
//
// Pixels: statistics run over the loaded pixels (the first loadedCount entries
// of the pixel list, whose band values are in `data`); a pixel's current label
// is read from the region's label map at (x + pad, y + pad).
//
// Ownership: the workspace owns mi, sigma (rows and row array), mixture and
// pixelIndex.  Copies returned by getMi()/getSigma() and the label forms that
// allocate belong to the caller (new[]; matrices row by row).  Not copyable.

#include <string>
#include <vector>

#include "data/PottsData.h"
#include "data/ROI.h"
#include "data/xy.h"

class Mixture;
struct WSReport;

class PottsWS : public PottsData {
  public:
    double* mi = nullptr;           // mean of the whole workspace (nBands)
    double** sigma = nullptr;       // covariance of the whole workspace (nBands x nBands)
    double sqDeviation = 0.0;       // sum of squared distances of the pixels to mi
    double likelihoodEnergy = 0.0;  // half the sum of squared Mahalanobis distances to (mi, sigma)
    double beta = 0.0;              // Potts beta of the last split (meaningful when splitState is 2)
    double splitGain = 0.0;         // gain of the last split (meaningful when splitState is 2)
    int edges = 0;                  // neighbouring pixel pairs across the children of the split
    Mixture* mixture = nullptr;     // class model of the split, owned
    // 0 not split (or test split removed), -1 clustering failed, -2 singular
    // class model, 1 classes estimated, 2 split carried out.
    int splitState = 0;
    bool processed = false;      // set by the driver once it has taken the workspace in
    double primaryGain = -1.0;   // gain of the method that made the split
    bool textureBased = false;   // the split was made by the texture-based method
    double secondaryGain = 0.0;  // gain of the other method (meaningful when splitState is 2)
    // Model-selection criterion of the last split in nats (ICL or BIC, the
    // engine's stopCriterion); NaN when none was computed.
    double criterion = std::numeric_limits<double>::quiet_NaN();
    // The leaf's best split that the run refused when it stopped (its gain and
    // criterion); refused is false when no such split was weighed.
    bool refused = false;
    double refusedGain = 0.0;
    double refusedCriterion = std::numeric_limits<double>::quiet_NaN();
    // Entry p: index of pixel p in the root data's pixel list (set by split for
    // every child); null when the workspace has none (the root), or when the
    // workspace does not track root indices.
    int* pixelIndex = nullptr;
    // Whether split gives the children root indices (and passes this on to
    // them).  Only tables over the root's pixels (the supervised likelihood
    // table) need them; without, a child costs 4 bytes a pixel less.
    bool tracksRootIndex = true;
    // A test child whose values are still in its parent's list (see split):
    // its mi, sigma and features are computed, it holds no values yet.
    bool valuesWithParent = false;

    // Each constructor forwards to the PottsData constructor with the same
    // arguments, then runs init().
    PottsWS();
    explicit PottsWS(int label);
    PottsWS(ROI<int, xy>* roi, int pad, int borderLabel, int label, int aux);
    PottsWS(int rows, int cols, int bands, bool shuffle, float percentage, char** bandFiles, int pad,
            int borderLabel, int aux);
    PottsWS(int rows, int cols, int bands, bool shuffle, float percentage, int pad, int borderLabel, int aux);
    PottsWS(bool shuffle, float percentage, std::string hrawFile, int pad, int borderLabel, int aux);
    ~PottsWS();

    PottsWS(const PottsWS&) = delete;
    PottsWS& operator=(const PottsWS&) = delete;

    // Defaults of the own fields: mi and sigma allocated and zeroed (null when
    // bands <= 0), energies 0, edges 0, no mixture, splitState 0, processed
    // false, primaryGain -1.0, textureBased false.  beta, splitGain and
    // secondaryGain are left as they are.
    void init();

    // ---- Whole-workspace statistics ----
    double* getMi();            // new copy of mi
    double** getSigma();        // new copy of sigma
    void setMi(double* m);      // copies bands values into mi
    void setSigma(double** s);  // copies bands x bands values into sigma
    void updateMi();            // mi over all loaded pixels
    void updateSigma();         // sigma over all loaded pixels (run updateMi first)
    void updateFeatures();      // sqDeviation and likelihoodEnergy from mi and sigma

    // ---- Statistics by label (pixels whose current map label is given) ----
    // Mean of one label into out; NaN entries when no pixel has the label.
    void getMi(int label, double* out);
    double* getMi(int label);
    // Means and counts of n labels in one pass (first matching label wins);
    // an empty label keeps a zero mean.
    void getMi(int n, int* labels, int* counts, double** means);
    // Biased covariance of one label into out; the sums of band products are
    // exact integers for every int32 value; near-zero result gets a unit diagonal.
    void getSigma(int label, double** out);
    double** getSigma(int label);
    // Covariances and counts of n labels in one pass; an empty label gets the identity.
    void getSigma(int n, int* labels, int* counts, double*** covs);
    // Pixel counts of n labels (first matching label wins).
    void getAreas(int n, int* labels, int* areas);
    // Class forms of getMi(n, labels, ...) and getSigma(label, out): the class of
    // loaded pixel p is classOf[p] (an index below n, or -1 for none) instead of
    // the first label matching its map label.  Same arithmetic in the same
    // order, so a class array that agrees with the map gives identical results.
    void getMiOfClasses(int n, const int* classOf, int* counts, double** means);
    void getSigmaOfClass(int c, const int* classOf, double** out);
    // Class form of getSigma(n, labels, counts, covs).
    void getSigmaOfClasses(int n, const int* classOf, int* counts, double*** covs);
    // classOf[p] = index of the first of the n labels equal to loaded pixel p's
    // map label, -1 for none: the class array that agrees with the map.
    void classesOf(int n, const int* labels, int* classOf);

    // Replaces mixture by the sub-model of the k classes idx of m (linked view).
    void linkMixture(Mixture* m, int k, int* idx);

    // Debugging aids: write mi to "mi<k>.dat" / sigma to "sigma<k>.dat", k in 0..9.
    void exportMi(int k);
    void exportSigma(int k);

    // ---- Split and report ----
    // One child per label (labels already painted in the map): children becomes a
    // new array of n new workspaces with their pixels, runs, borders, contours and
    // (with computeStats) band values, mi and sigma.  Sets this->edges.  Returns
    // the number of children with pixels, negated when some pixels carry none of
    // the labels.  With valuesWithParent (and computeStats, values in memory)
    // the children get no copies: their statistics and features are read
    // from this workspace's values, and handValuesToChildren gives them their
    // values once this split is final.
    int split(int* labels, int n, PottsWS**& children, bool computeStats, bool valuesWithParent = false);
    // The split above is final: this workspace's values are reordered in
    // place into one range per child (each child's pixels in their own
    // order), and each child valuesWithParent gets its range.  Nothing may read
    // this workspace's pixels afterwards but releasePixels.
    void handValuesToChildren(PottsWS** children, int n);
    // Relabels every pixel with the Gaussian class (estimated from the pixels
    // already labelled, label 0 = unlabelled) that explains it best.  When given,
    // means[k] / covs[k] (caller storage) receive the class statistics.
    void MLMapCompletion(double** means, double*** covs);
    // New report record of this workspace; the driver's members zero or null.
    WSReport* getWSReport();
    // Frees the pixel list, its values and root indices of a workspace whose
    // split is final (its statistics, region and map stay): nothing may read
    // its pixels afterwards.
    void releasePixels();

  private:
    // updateMi, updateSigma and updateFeatures over the pixels a scan gives.
    template <typename Scan>
    void meanOver(const Scan& scan);
    template <typename Scan>
    void sigmaOver(const Scan& scan);
    template <typename Scan>
    void featuresOver(const Scan& scan);

    // What sigma and the features were last computed from and came to, bit
    // for bit: a region's pixels never change once it is made, so when a test
    // split asks again for what the split that made the region computed, the
    // same inputs and untouched results are the answer already.
    std::vector<double> sigmaKey_, featuresKey_;
    std::vector<double> sigmaState() const;
    std::vector<double> featuresState() const;

    // The accumulations behind the label statistics, by how a pixel is
    // selected (selected(p) -> bool) or classed (classOf(p) -> index or -1).
    template <typename Selected>
    void meanWhere(Selected selected, double* out);
    template <typename ClassOf>
    void meansOf(int n, ClassOf classOf, int* counts, double** means);
    template <typename Selected>
    void sigmaWhere(Selected selected, double** out);
    template <typename ClassOf>
    void sigmasOf(int n, ClassOf classOf, int* counts, double*** covs);
};
