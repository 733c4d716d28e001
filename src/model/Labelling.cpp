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

void Labeller::label(int*** cube, const uint8_t* valid, int rows, int cols, int originRow, int originCol,
                     int32_t* out, int threads) const {
    if (rows <= 0 || cols <= 0) return;
    Workers team(threads);
    const long byPixels = std::max<long>(4L * kLabelRadius, kStripPixels / cols);
    const long byThreads = (rows + team.size() - 1) / team.size();
    const int height = static_cast<int>(std::max<long>(1, std::min(byPixels, byThreads)));
    const int strips = (rows + height - 1) / height;
    team.run(strips, [&](int s) {
        const int first = s * height, last = std::min(rows, first + height);
        strip(cube, valid, cols, originRow, originCol, first, last, std::max(0, first - kLabelRadius),
              std::min(rows, last + kLabelRadius), out);
    });
}

void Labeller::strip(int*** cube, const uint8_t* valid, int cols, int originRow, int originCol, int first,
                     int last, int haloFirst, int haloLast, int32_t* out) const {
    const size_t n = static_cast<size_t>(haloLast - haloFirst) * static_cast<size_t>(cols);
    const size_t width = static_cast<size_t>(cols), d = static_cast<size_t>(d_);
    // energy[c * n + p]: leaf c at pixel p of the strip; cls[p]: leaf index, -1 for no label.
    std::vector<double> energy(static_cast<size_t>(k_) * n);
    std::vector<int32_t> cls(n);
    std::vector<double> x(d * width), delta(d * width), y(width), q(width), best(width);

    for (int r = haloFirst; r < haloLast; ++r) {
        const size_t row = static_cast<size_t>(r - haloFirst) * width;
        for (size_t b = 0; b < d; ++b) {
            const int* values = cube[b][r];
            double* xb = &x[b * width];
            for (size_t c = 0; c < width; ++c) xb[c] = values[c];
        }
        std::fill(best.begin(), best.end(), std::numeric_limits<double>::infinity());
        int32_t* rowCls = &cls[row];
        std::fill(rowCls, rowCls + width, 0);
        for (int k = 0; k < k_; ++k) {
            const double* mu = &mean_[static_cast<size_t>(k) * d];
            const double* w = &whiten_[static_cast<size_t>(k) * d * d];
            for (size_t b = 0; b < d; ++b) {
                const double* __restrict xb = &x[b * width];
                double* __restrict db = &delta[b * width];
                const double m = mu[b];
                for (size_t c = 0; c < width; ++c) db[c] = xb[c] - m;
            }
            double* __restrict qs = q.data();
            double* __restrict ys = y.data();
            std::fill(qs, qs + width, 0.0);
            for (size_t j = 0; j < d; ++j) {
                const double* __restrict d0 = &delta[0];
                const double w0 = w[j * d];
                for (size_t c = 0; c < width; ++c) ys[c] = w0 * d0[c];
                for (size_t i = 1; i <= j; ++i) {
                    const double* __restrict di = &delta[i * width];
                    const double wi = w[j * d + i];
                    for (size_t c = 0; c < width; ++c) ys[c] += wi * di[c];
                }
                for (size_t c = 0; c < width; ++c) qs[c] += ys[c] * ys[c];
            }
            const double h = halfLogdet_[static_cast<size_t>(k)];
            double* __restrict e = &energy[static_cast<size_t>(k) * n + row];
            double* __restrict bs = best.data();
            for (size_t c = 0; c < width; ++c) {
                e[c] = h + 0.5 * qs[c];
                const bool lower = e[c] < bs[c];
                bs[c] = lower ? e[c] : bs[c];
                rowCls[c] = lower ? k : rowCls[c];
            }
        }
        if (valid != nullptr) {
            const uint8_t* v = valid + static_cast<size_t>(r) * width;
            for (size_t c = 0; c < width; ++c)
                if (v[c] == 0) rowCls[c] = -1;
        }
    }

    // The sweeps, one pixel class at a time.
    const int stripRows = haloLast - haloFirst;
    std::vector<int> count(static_cast<size_t>(k_), 0);
    for (int visit = 0; visit < 4 * kLabelSweeps; ++visit) {
        const int rowParity = (visit % 4) >> 1, colParity = (visit % 4) & 1;
        const int r0 = ((originRow + haloFirst) & 1) == rowParity ? 0 : 1;
        const int c0 = (originCol & 1) == colParity ? 0 : 1;
        for (int r = r0; r < stripRows; r += 2) {
            const size_t row = static_cast<size_t>(r) * width;
            for (int c = c0; c < cols; c += 2) {
                const size_t p = row + static_cast<size_t>(c);
                if (cls[p] < 0) continue;
                int seen[8], m = 0;
                for (int dr = -1; dr <= 1; ++dr) {
                    const int rr = r + dr;
                    if (rr < 0 || rr >= stripRows) continue;
                    for (int dc = -1; dc <= 1; ++dc) {
                        const int cc = c + dc;
                        if ((dr == 0 && dc == 0) || cc < 0 || cc >= cols) continue;
                        const int32_t l = cls[static_cast<size_t>(rr) * width + static_cast<size_t>(cc)];
                        if (l >= 0) {
                            if (count[static_cast<size_t>(l)]++ == 0) seen[m++] = l;
                        }
                    }
                }
                int chosen = 0;
                double top = -std::numeric_limits<double>::infinity();
                for (int k = 0; k < k_; ++k) {
                    const double u = beta_ * count[static_cast<size_t>(k)] - energy[static_cast<size_t>(k) * n + p];
                    if (u > top) {
                        top = u;
                        chosen = k;
                    }
                }
                cls[p] = chosen;
                for (int i = 0; i < m; ++i) count[static_cast<size_t>(seen[i])] = 0;
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
