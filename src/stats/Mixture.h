#pragma once
// Gaussian statistics of K classes in a d-dimensional feature space: per class a
// mean vector and a covariance matrix and, once inverse storage exists
// (inv()), the inverse covariance, log|det| and an inversion flag.
//
// Ownership (field `storage`):
//  2 = owns mi, sigma (and sigmaInv when hasInv): new[] arrays, matrices row by row.
//  1 = linked: a view onto selected classes of a parent.  The pointer arrays
//      (mi, sigma, sigmaInv, logdet, invOk) are its own, but mi[i], sigma[i] and
//      sigmaInv[i] are the parent's very arrays, so a change through either is
//      seen by both; logdet[i] and invOk[i] are copies taken at link time.  The
//      parent must outlive every mixture linked to it.
//  0 = nothing allocated.
// linkIndex (linked only) is the caller's array and is never released here.
// Copying is forbidden; the get*Copy operations give deep copies.

class Mixture {
  public:
    int dim = 0;                   // d
    int k = 0;                     // K
    double** mi = nullptr;         // K x d means
    double*** sigma = nullptr;     // K x d x d covariances
    double*** sigmaInv = nullptr;  // K x d x d inverses (once hasInv)
    double* logdet = nullptr;      // K values log|det sigma_i|
    int* invOk = nullptr;          // K flags: 1 inverted, 0 singular
    int* linkIndex = nullptr;      // linked: parent class of each class; never owned
    int storage = 0;               // 0 none, 1 linked, 2 owning
    int hasInv = 0;                // 1 once sigmaInv, logdet, invOk exist

    // Empty mixture.
    Mixture();
    // K zero means and K zero d x d covariances (storage 2).
    Mixture(int k, int d);
    // Adopts mi (K x d) and sigma (K x d x d), new[] arrays; with inv true the
    // inverse storage is made and filled at once (inv(), updateInv()).
    Mixture(int k, int d, double** mi, double*** sigma, bool inv);
    // Linked view of the parent classes idx[0..k-1]; idx itself is kept as
    // linkIndex.  Empty when the parent has no inverse storage.
    Mixture(Mixture* parent, int k, int* idx);
    ~Mixture();

    Mixture(const Mixture&) = delete;
    Mixture& operator=(const Mixture&) = delete;

    // Copies a mean and a covariance into class i (storage > 0 and d > 0 only);
    // the inverse is not refreshed.
    void set(int i, double* mi, double** sigma);
    // copy false: adopts the arrays (previous ones are not released);
    // copy true: copies class by class.  storage becomes 2 either way.
    void set(double** mi, double*** sigma, bool copy);

    // Allocates the inverse storage (K d x d inverses, logdet, invOk); computes nothing.
    void inv();
    // Recomputes every inverse and log-determinant.  A class that turns out
    // singular gets invOk 0 and keeps its previous inverse and log-determinant.
    // True iff every class inverted; false without inverse storage.
    bool updateInv();
    // The same for class i alone.
    bool updateInv(int i);
    // True iff every invOk[i] >= 1 (true for K < 1).
    bool checkInv() const;

    // New linked mixture over the classes whose mask entry is true (increasing
    // order), or null when nothing is selected or this mixture does not own its
    // data.  The new index array belongs to the caller together with the result.
    Mixture* generateLinkedMixture(bool* mask);

    // Deep copies (K x d, K x d x d, K), new[] arrays the caller releases.
    double** getMiCopy() const;
    double*** getSigmaInvCopy() const;
    double* getLogdetCopy() const;
};
