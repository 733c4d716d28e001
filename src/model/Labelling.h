#pragma once
// Labelling pixels with a model: each pixel's maximum-likelihood leaf, then
// kLabelSweeps synchronous ICM sweeps under the Potts prior with the model's
// beta and 8-neighbourhood.
//
// A leaf's energy at pixel x is E = ½·log|Σ| + ½·(x − μ)ᵀΣ⁻¹(x − μ), from the
// Cholesky factor of Σ.  The first labels are the leaves of least energy
// (ties: the lower label).  A sweep visits the pixels in four classes by the
// parity of their row and column in the whole image, (even, even), (even,
// odd), (odd, even), (odd, odd); no two pixels of a class are neighbours, so
// every pixel of a class is decided from the labels its neighbours have at
// that moment, whatever order the pixels of the class are visited in.  A pixel
// takes the leaf of largest β·n − E, n the number of its neighbours with that
// leaf (ties: the lower label).  Pixels outside the image, outside the mask
// or nodata are nobody's neighbours and get label 0.
//
// Each class visit carries information one pixel further, so a label depends
// only on the pixels within kLabelRadius rows and columns: a block of the
// image read with that margin around it (the halo; cut at the image's edges)
// gives its pixels exactly the labels the whole image gives them.  The
// labeller itself works that way, in strips of rows with their halos, one
// strip per thread at a time: the labels do not depend on the thread count.

#include <cstdint>
#include <vector>

#include "model/Model.h"

namespace dhc {

// A rectangle of an image: first row and column, rows and columns.
struct Window {
    int row = 0, col = 0, rows = 0, cols = 0;
};

// The window grown by kLabelRadius on every side, cut at the image's edges.
Window withHalo(const Window& w, int imageRows, int imageCols);

class Labeller {
  public:
    explicit Labeller(const Model& model);

    int bands() const { return d_; }
    int classes() const { return k_; }

    // Labels a block of rows x cols pixels: cube[band][row][col] the values,
    // valid (row-major, may be null: every pixel) the pixels to label.  The
    // block's first pixel is pixel (originRow, originCol) of the image (it
    // fixes the sweeps' pixel classes).  out: rows x cols labels, row-major.
    void label(int*** cube, const uint8_t* valid, int rows, int cols, int originRow, int originCol, int32_t* out,
               int threads = 1) const;

  private:
    struct Scratch;
    // Labels rows [first, last) of the block from rows [haloFirst, haloLast).
    void strip(int*** cube, const uint8_t* valid, int cols, int originRow, int originCol, int first, int last,
               int haloFirst, int haloLast, int32_t* out, Scratch& scratch) const;

    int k_ = 0, d_ = 0;
    double beta_ = 0;
    std::vector<int32_t> labels_;    // k
    std::vector<double> mean_;       // k x d
    std::vector<double> whiten_;     // k x d x d, the inverse of each Cholesky factor (lower)
    std::vector<double> halfLogdet_; // k
};

}  // namespace dhc
