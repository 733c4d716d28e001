#include "model/Labelling.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "settings/Workers.h"

namespace dhc {

namespace {

// Pixels of one strip's energies, about: bounds the scratch of each thread
// (8 bytes per leaf and pixel) while keeping the halos a small share.
constexpr long kStripPixels = 1L << 20;

}  // namespace

Window withHalo(const Window& w, int imageRows, int imageCols) {
    Window h;
    h.row = std::max(0, w.row - kLabelRadius);
    h.col = std::max(0, w.col - kLabelRadius);
    h.rows = std::min(imageRows, w.row + w.rows + kLabelRadius) - h.row;
    h.cols = std::min(imageCols, w.col + w.cols + kLabelRadius) - h.col;
    return h;
}

Labeller::Labeller(const Model& model) : k_(static_cast<int>(model.leaves.size())), d_(model.bands), beta_(model.beta) {
    const size_t d = static_cast<size_t>(d_);
    for (const ModelLeaf& leaf : model.leaves) {
        std::vector<double> lower;
        if (!cholesky(leaf.covariance, d_, lower))
            throw std::invalid_argument("leaf " + std::to_string(leaf.label) + ": covariance not positive definite");
        // W = L⁻¹ (lower), so that (x − μ)ᵀΣ⁻¹(x − μ) = |W(x − μ)|².
        std::vector<double> w(d * d, 0.0);
        for (size_t j = 0; j < d; ++j) {
            w[j * d + j] = 1.0 / lower[j * d + j];
            for (size_t i = j + 1; i < d; ++i) {
                double s = 0.0;
                for (size_t k = j; k < i; ++k) s += lower[i * d + k] * w[k * d + j];
                w[i * d + j] = -s / lower[i * d + i];
            }
        }
        double logdet = 0.0;
        for (size_t j = 0; j < d; ++j) logdet += std::log(lower[j * d + j]);
        labels_.push_back(leaf.label);
        mean_.insert(mean_.end(), leaf.mean.begin(), leaf.mean.end());
        whiten_.insert(whiten_.end(), w.begin(), w.end());
        halfLogdet_.push_back(logdet);  // Σ log L_jj = ½·log|Σ|
    }
}

// What one thread needs for its strips, allocated once and reused: the
// leaves' energies, the labels, and row-long working arrays.
struct Labeller::Scratch {
    std::vector<double> energy;  // leaf-major: energy[c * n + p]
    std::vector<int32_t> cls, ml;
    std::vector<double> x, delta, y, q, best, bestLeaf;
};

void Labeller::label(int*** cube, const uint8_t* valid, int rows, int cols, int originRow, int originCol,
                     int32_t* out, int threads) const {
    if (rows <= 0 || cols <= 0) return;
    Workers team(threads);
    const long byPixels = std::max<long>(4L * kLabelRadius, kStripPixels / cols);
    const long byThreads = (rows + team.size() - 1) / team.size();
    const int height = static_cast<int>(std::max<long>(1, std::min(byPixels, byThreads)));
    const int strips = (rows + height - 1) / height;
    const int parts = std::min(strips, team.size());
    // Part i takes strips i, i + parts, ...: each its own scratch.
    team.run(parts, [&](int part) {
        Scratch scratch;
        for (int s = part; s < strips; s += parts) {
            const int first = s * height, last = std::min(rows, first + height);
            strip(cube, valid, cols, originRow, originCol, first, last, std::max(0, first - kLabelRadius),
                  std::min(rows, last + kLabelRadius), out, scratch);
        }
    });
}

namespace {

// A vector of at least n elements whose contents need not be kept: grown
// without zeroing what it will overwrite anyway.
template <typename T>
T* room(std::vector<T>& v, size_t n) {
    if (v.size() < n) {
        v = std::vector<T>();
        v.resize(n);
    }
    return v.data();
}

// One leaf's energies along a row: e[c] = h + ½·|W(x_c − μ)|², and the
// least so far (best, bestLeaf: kept as doubles so the loops run on vectors).
// D > 0 is the band count known at compile time: the pixel's deviations stay
// in registers.  D = 0 works for any count through row-long arrays.  Both
// make every sum in the same order, so they give the same bits.
template <int D>
void leafEnergies(const double* x, size_t width, size_t d, const double* mu, const double* w, double h, int k,
                  double* __restrict e, double* __restrict best, double* __restrict bestLeaf, double* delta,
                  double* ys, double* qs) {
    const double leaf = k;
    if constexpr (D > 0) {
        (void)d;
        (void)delta;
        (void)ys;
        (void)qs;
        // P pixels at a time, so that the loops over them run on vectors;
        // the last few pixels one at a time, in the same order of operations.
        constexpr size_t P = 8;
        size_t c = 0;
        for (; c + P <= width; c += P) {
            double dev[D][P], q[P], yj[P];
            for (int b = 0; b < D; ++b)
                for (size_t t = 0; t < P; ++t) dev[b][t] = x[static_cast<size_t>(b) * width + c + t] - mu[b];
            for (size_t t = 0; t < P; ++t) q[t] = 0.0;
            for (int j = 0; j < D; ++j) {
                const double w0 = w[j * D];
                for (size_t t = 0; t < P; ++t) yj[t] = w0 * dev[0][t];
                for (int i = 1; i <= j; ++i) {
                    const double wi = w[j * D + i];
                    for (size_t t = 0; t < P; ++t) yj[t] += wi * dev[i][t];
                }
                for (size_t t = 0; t < P; ++t) q[t] += yj[t] * yj[t];
            }
            for (size_t t = 0; t < P; ++t) {
                const double v = h + 0.5 * q[t];
                e[c + t] = v;
                const bool lower = v < best[c + t];
                best[c + t] = lower ? v : best[c + t];
                bestLeaf[c + t] = lower ? leaf : bestLeaf[c + t];
            }
        }
        for (; c < width; ++c) {
            double dev[D];
            for (int b = 0; b < D; ++b) dev[b] = x[static_cast<size_t>(b) * width + c] - mu[b];
            double q = 0.0;
            for (int j = 0; j < D; ++j) {
                double yj = w[j * D] * dev[0];
                for (int i = 1; i <= j; ++i) yj += w[j * D + i] * dev[i];
                q += yj * yj;
            }
            const double v = h + 0.5 * q;
            e[c] = v;
            const bool lower = v < best[c];
            best[c] = lower ? v : best[c];
            bestLeaf[c] = lower ? leaf : bestLeaf[c];
        }
    } else {
        for (size_t b = 0; b < d; ++b) {
            const double* __restrict xb = &x[b * width];
            double* __restrict db = &delta[b * width];
            const double m = mu[b];
            for (size_t c = 0; c < width; ++c) db[c] = xb[c] - m;
        }
        std::fill(qs, qs + width, 0.0);
        for (size_t j = 0; j < d; ++j) {
            const double w0 = w[j * d];
            for (size_t c = 0; c < width; ++c) ys[c] = w0 * delta[c];
            for (size_t i = 1; i <= j; ++i) {
                const double* __restrict di = &delta[i * width];
                const double wi = w[j * d + i];
                for (size_t c = 0; c < width; ++c) ys[c] += wi * di[c];
            }
            for (size_t c = 0; c < width; ++c) qs[c] += ys[c] * ys[c];
        }
        for (size_t c = 0; c < width; ++c) {
            e[c] = h + 0.5 * qs[c];
            const bool lower = e[c] < best[c];
            best[c] = lower ? e[c] : best[c];
            bestLeaf[c] = lower ? leaf : bestLeaf[c];
        }
    }
}

}  // namespace

void Labeller::strip(int*** cube, const uint8_t* valid, int cols, int originRow, int originCol, int first,
                     int last, int haloFirst, int haloLast, int32_t* out, Scratch& scratch) const {
    const size_t n = static_cast<size_t>(haloLast - haloFirst) * static_cast<size_t>(cols);
    const size_t width = static_cast<size_t>(cols), d = static_cast<size_t>(d_);
    // energy[c * n + p]: leaf c at pixel p of the strip; cls[p]: leaf index,
    // -1 for no label; ml[p]: the leaf of least energy.
    double* const energy = room(scratch.energy, static_cast<size_t>(k_) * n);
    int32_t* const cls = room(scratch.cls, n);
    int32_t* const ml = room(scratch.ml, n);
    double* const x = room(scratch.x, d * width);
    double* const delta = room(scratch.delta, d * width);
    double* const y = room(scratch.y, width);
    double* const q = room(scratch.q, width);
    double* const best = room(scratch.best, width);
    double* const bestLeaf = room(scratch.bestLeaf, width);

    for (int r = haloFirst; r < haloLast; ++r) {
        const size_t row = static_cast<size_t>(r - haloFirst) * width;
        for (size_t b = 0; b < d; ++b) {
            const int* values = cube[b][r];
            double* xb = &x[b * width];
            for (size_t c = 0; c < width; ++c) xb[c] = values[c];
        }
        std::fill(best, best + width, std::numeric_limits<double>::infinity());
        std::fill(bestLeaf, bestLeaf + width, 0.0);
        for (int k = 0; k < k_; ++k) {
            const double* mu = &mean_[static_cast<size_t>(k) * d];
            const double* w = &whiten_[static_cast<size_t>(k) * d * d];
            double* e = &energy[static_cast<size_t>(k) * n + row];
            const double h = halfLogdet_[static_cast<size_t>(k)];
            switch (d_) {
                case 1: leafEnergies<1>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 2: leafEnergies<2>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 3: leafEnergies<3>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 4: leafEnergies<4>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 5: leafEnergies<5>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 6: leafEnergies<6>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 7: leafEnergies<7>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                case 8: leafEnergies<8>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
                default: leafEnergies<0>(x, width, d, mu, w, h, k, e, best, bestLeaf, delta, y, q); break;
            }
        }
        int32_t* rowCls = &cls[row];
        int32_t* rowMl = &ml[row];
        for (size_t c = 0; c < width; ++c) rowCls[c] = rowMl[c] = static_cast<int32_t>(bestLeaf[c]);
        if (valid != nullptr) {
            const uint8_t* v = valid + static_cast<size_t>(r) * width;
            for (size_t c = 0; c < width; ++c)
                if (v[c] == 0) rowCls[c] = -1;
        }
    }

    // The sweeps, one pixel class at a time.  With beta >= 0 a leaf that no
    // neighbour has cannot beat the pixel's least-energy leaf (nor tie it
    // with a lower index), so only those leaves are scored.  A pixel's
    // choice depends on its neighbours' labels and its own energies only: it
    // is made again only when a neighbour changed since it was last made
    // (dirty), which gives the same labels as deciding every pixel each time.
    const int stripRows = haloLast - haloFirst;
    const bool few = beta_ >= 0;
    std::vector<int> count(static_cast<size_t>(k_), 0);
    std::vector<uint8_t> dirty(n, 1);
    const auto energyOf = [&](int k, size_t p) { return energy[static_cast<size_t>(k) * n + p]; };
    for (int visit = 0; visit < 4 * kLabelSweeps; ++visit) {
        const int rowParity = (visit % 4) >> 1, colParity = (visit % 4) & 1;
        const int r0 = ((originRow + haloFirst) & 1) == rowParity ? 0 : 1;
        const int c0 = (originCol & 1) == colParity ? 0 : 1;
        for (int r = r0; r < stripRows; r += 2) {
            const size_t row = static_cast<size_t>(r) * width;
            const bool innerRow = r > 0 && r + 1 < stripRows;
            for (int c = c0; c < cols; c += 2) {
                const size_t p = row + static_cast<size_t>(c);
                if (cls[p] < 0 || !dirty[p]) continue;
                dirty[p] = 0;
                int chosen = -1;
                if (few && innerRow && c > 0 && c + 1 < cols) {
                    // One leaf all around, the usual case inside a region.
                    const int32_t* up = &cls[p - width];
                    const int32_t* mid = &cls[p];
                    const int32_t* down = &cls[p + width];
                    const int32_t l = up[-1];
                    if (l >= 0 && up[0] == l && up[1] == l && mid[-1] == l && mid[1] == l && down[-1] == l &&
                        down[0] == l && down[1] == l) {
                        const int own = ml[p];
                        if (l == own) {
                            chosen = own;
                        } else {
                            const double uOwn = -energyOf(own, p), uL = beta_ * 8 - energyOf(l, p);
                            chosen = uL > uOwn || (uL == uOwn && l < own) ? l : own;
                        }
                    }
                }
                if (chosen < 0) {
                    int seen[9], m = 0;
                    for (int dr = -1; dr <= 1; ++dr) {
                        const int rr = r + dr;
                        if (rr < 0 || rr >= stripRows) continue;
                        for (int dc = -1; dc <= 1; ++dc) {
                            const int cc = c + dc;
                            if ((dr == 0 && dc == 0) || cc < 0 || cc >= cols) continue;
                            const int32_t l = cls[static_cast<size_t>(rr) * width + static_cast<size_t>(cc)];
                            if (l >= 0 && count[static_cast<size_t>(l)]++ == 0) seen[m++] = l;
                        }
                    }
                    double top = -std::numeric_limits<double>::infinity();
                    auto score = [&](int k) {
                        const double u = beta_ * count[static_cast<size_t>(k)] - energyOf(k, p);
                        if (u > top || (u == top && k < chosen)) {
                            top = u;
                            chosen = k;
                        }
                    };
                    if (few) {
                        chosen = ml[p];
                        top = beta_ * count[static_cast<size_t>(chosen)] - energyOf(chosen, p);
                        for (int i = 0; i < m; ++i) score(seen[i]);
                    } else {
                        chosen = k_;
                        for (int k = 0; k < k_; ++k) score(k);
                    }
                    for (int i = 0; i < m; ++i) count[static_cast<size_t>(seen[i])] = 0;
                }
                if (chosen == cls[p]) continue;
                cls[p] = chosen;
                for (int rr = std::max(0, r - 1); rr <= std::min(stripRows - 1, r + 1); ++rr)
                    for (int cc = std::max(0, c - 1); cc <= std::min(cols - 1, c + 1); ++cc)
                        dirty[static_cast<size_t>(rr) * width + static_cast<size_t>(cc)] = 1;
            }
        }
    }

    for (int r = first; r < last; ++r) {
        const int32_t* from = &cls[static_cast<size_t>(r - haloFirst) * width];
        int32_t* to = out + static_cast<size_t>(r) * width;
        for (size_t c = 0; c < width; ++c) to[c] = from[c] < 0 ? 0 : labels_[static_cast<size_t>(from[c])];
    }
}

}  // namespace dhc
