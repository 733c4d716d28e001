#include "driver/FinalModel.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <unordered_map>

#include "settings/Workers.h"

namespace dhc {
namespace {

constexpr double kLog2Pi = 1.8378770664093454836;
// The variance of rounding a value to an integer.
constexpr double kRounding = 1.0 / 12.0;
// Pixels per block of every sum; blocks are joined in order.
constexpr int kBlock = 8192;
constexpr int kEmIterations = 8;
constexpr int kEmSample = 32768;
constexpr int kMaxSweeps = 50;
const double kNone = -std::numeric_limits<double>::infinity();

struct Gaussian {
    bool active = false;
    double count = 0.0;
    std::vector<double> mean;
    std::vector<double> cov;  // d x d
    std::vector<double> inv;  // d x d, lower-triangular whitening
    double logNorm = 0.0;     // -(d ln 2 pi + ln det) / 2
};

// The whitening of g's covariance (with the rounding term added by the
// caller): W lower-triangular with W S W' = I, from the Cholesky factor, and
// the normaliser.  A class whose covariance is not positive definite is dropped.
void prepare(Gaussian& g, int d) {
    if (!g.active) return;
    std::vector<double> l(static_cast<size_t>(d) * d, 0.0);
    double logdet = 0.0;
    for (int i = 0; i < d && g.active; ++i) {
        for (int j = 0; j <= i; ++j) {
            double v = g.cov[static_cast<size_t>(i) * d + j];
            for (int t = 0; t < j; ++t) v -= l[static_cast<size_t>(i) * d + t] * l[static_cast<size_t>(j) * d + t];
            if (i == j) {
                if (!(v > 0.0) || !std::isfinite(v)) {
                    g.active = false;
                    break;
                }
                l[static_cast<size_t>(i) * d + i] = std::sqrt(v);
                logdet += std::log(v);
            } else {
                l[static_cast<size_t>(i) * d + j] = v / l[static_cast<size_t>(j) * d + j];
            }
        }
    }
    if (!g.active) return;
    // W = L^-1, column by column by forward substitution.
    g.inv.assign(static_cast<size_t>(d) * d, 0.0);
    for (int c = 0; c < d; ++c) {
        for (int i = c; i < d; ++i) {
            double v = i == c ? 1.0 : 0.0;
            for (int t = c; t < i; ++t) v -= l[static_cast<size_t>(i) * d + t] * g.inv[static_cast<size_t>(t) * d + c];
            g.inv[static_cast<size_t>(i) * d + c] = v / l[static_cast<size_t>(i) * d + i];
        }
    }
    g.logNorm = -0.5 * (d * kLog2Pi + logdet);
}

double logDensity(const Gaussian& g, const int* x, int d, double* diff) {
    for (int i = 0; i < d; ++i) diff[i] = x[i] - g.mean[i];
    double q = 0.0;
    for (int i = 0; i < d; ++i) {
        const double* w = &g.inv[static_cast<size_t>(i) * d];
        double y = 0.0;
        for (int j = 0; j <= i; ++j) y += w[j] * diff[j];
        q += y * y;
    }
    return g.logNorm - 0.5 * q;
}

class Refiner {
  public:
    Refiner(const FinalPixels& px, int** plane, int pad, double betaMin, double betaMax)
        : px_(px), plane_(plane), pad_(pad), d_(px.bands), k_(static_cast<int>(px.labels.size())),
          n_(static_cast<int>(px.rows.size())), betaMin_(betaMin), betaMax_(betaMax) {
        int top = 0;
        for (int l : px.labels) top = std::max(top, l);
        classOfLabel_.assign(static_cast<size_t>(top) + 1, -1);
        for (int c = 0; c < k_; ++c) classOfLabel_[static_cast<size_t>(px.labels[c])] = c;
        blocks_ = (n_ + kBlock - 1) / kBlock;
        // EM estimates a few parameters per class: every emStride_-th pixel
        // of the leaves' lists (which follow the region's shuffled order) is
        // sample enough.  A power of two, so every block starts on a sample.
        while (n_ / emStride_ > kEmSample) emStride_ *= 2;
    }

    int n() const { return n_; }
    int k() const { return k_; }

    // Class index of pixel p on the plane (-1 when it carries no class label).
    int classAt(int p) const {
        const int l = plane_[px_.rows[p] + pad_][px_.cols[p] + pad_];
        return l >= 0 && static_cast<size_t>(l) < classOfLabel_.size() ? classOfLabel_[static_cast<size_t>(l)] : -1;
    }
    std::vector<int> classes() const {
        std::vector<int> z(static_cast<size_t>(n_));
        for (int p = 0; p < n_; ++p) z[p] = classAt(p);
        return z;
    }
    void paint(const std::vector<int>& z) {
        for (int p = 0; p < n_; ++p)
            if (z[p] >= 0) plane_[px_.rows[p] + pad_][px_.cols[p] + pad_] = px_.labels[z[p]];
    }

    // Gaussians of the classes of map z: counts and means, then the centred
    // products, each a pass of block sums joined in order.
    std::vector<Gaussian> estimate(const std::vector<int>* z) {
        const int d = d_, k = k_;
        const size_t stride = 1 + static_cast<size_t>(d) + static_cast<size_t>(d) * d;
        std::vector<Gaussian> out(k);
        // Pass 1: counts and sums; pass 2: centred products.
        for (int pass = 0; pass < 2; ++pass) {
            std::vector<double> sums(static_cast<size_t>(blocks_) * k * stride, 0.0);
            dhc::forChunks(blocks_, 1, [&](int first, int last, int) {
                std::vector<double> w(k), diff(d);
                for (int b = first; b < last; ++b) {
                    double* s = &sums[static_cast<size_t>(b) * k * stride];
                    const int end = std::min(n_, (b + 1) * kBlock);
                    for (int p = b * kBlock; p < end; ++p) {
                        const int* x = &px_.values[static_cast<size_t>(p) * d];
                        std::fill(w.begin(), w.end(), 0.0);
                        if ((*z)[p] >= 0) w[(*z)[p]] = 1.0;
                        for (int c = 0; c < k; ++c) {
                            if (w[c] == 0.0) continue;
                            double* sc = s + static_cast<size_t>(c) * stride;
                            if (pass == 0) {
                                sc[0] += w[c];
                                for (int i = 0; i < d; ++i) sc[1 + i] += w[c] * x[i];
                            } else {
                                for (int i = 0; i < d; ++i) diff[i] = x[i] - out[c].mean[i];
                                for (int i = 0; i < d; ++i)
                                    for (int j = 0; j <= i; ++j) sc[1 + d + i * d + j] += w[c] * diff[i] * diff[j];
                            }
                        }
                    }
                }
            });
            for (int c = 0; c < k; ++c) {
                std::vector<double> total(stride, 0.0);
                for (int b = 0; b < blocks_; ++b) {
                    const double* sc = &sums[(static_cast<size_t>(b) * k + c) * stride];
                    for (size_t i = 0; i < stride; ++i) total[i] += sc[i];
                }
                Gaussian& g = out[c];
                if (pass == 0) {
                    g.count = total[0];
                    g.active = g.count > 0.0;
                    g.mean.assign(d, 0.0);
                    if (g.active)
                        for (int i = 0; i < d; ++i) g.mean[i] = total[1 + i] / g.count;
                } else {
                    g.cov.assign(static_cast<size_t>(d) * d, 0.0);
                    if (!g.active) continue;
                    for (int i = 0; i < d; ++i)
                        for (int j = 0; j <= i; ++j) {
                            const double v = total[1 + d + i * d + j] / g.count + (i == j ? kRounding : 0.0);
                            g.cov[static_cast<size_t>(i) * d + j] = v;
                            g.cov[static_cast<size_t>(j) * d + i] = v;
                        }
                }
            }
        }
        for (Gaussian& g : out) prepare(g, d);
        return out;
    }

    // Mixture posteriors of x (weights by class count) into w; returns log p(x).
    double posteriors(const std::vector<Gaussian>& g, const int* x, double* w, double* diff) const {
        double total = 0.0;
        for (int c = 0; c < k_; ++c) total += g[c].active ? g[c].count : 0.0;
        double top = kNone;
        for (int c = 0; c < k_; ++c) {
            w[c] = g[c].active ? std::log(g[c].count / total) + logDensity(g[c], x, d_, diff) : kNone;
            top = std::max(top, w[c]);
        }
        double sum = 0.0;
        for (int c = 0; c < k_; ++c) {
            w[c] = g[c].active ? std::exp(w[c] - top) : 0.0;
            sum += w[c];
        }
        for (int c = 0; c < k_; ++c) w[c] /= sum;
        return top + std::log(sum);
    }

    // One EM step from g: posteriors, then weights, means and covariances
    // summed around g's means (close to the new ones) in one pass; ll gets
    // the log-likelihood under g.
    std::vector<Gaussian> emStep(const std::vector<Gaussian>& g, double& ll) {
        const int d = d_, k = k_;
        const size_t stride = 2 + static_cast<size_t>(d) + static_cast<size_t>(d) * d;
        std::vector<double> sums(static_cast<size_t>(blocks_) * k * stride, 0.0);
        std::vector<double> lls(static_cast<size_t>(blocks_), 0.0);
        dhc::forChunks(blocks_, 1, [&](int first, int last, int) {
            std::vector<double> w(k), diff(d);
            for (int b = first; b < last; ++b) {
                double* s = &sums[static_cast<size_t>(b) * k * stride];
                const int end = std::min(n_, (b + 1) * kBlock);
                double l = 0.0;
                for (int p = b * kBlock; p < end; p += emStride_) {
                    const int* x = &px_.values[static_cast<size_t>(p) * d];
                    l += posteriors(g, x, w.data(), diff.data());
                    for (int c = 0; c < k; ++c) {
                        // A class this unlikely changes no sum a double can show.
                        if (w[c] < 1e-17) continue;
                        double* sc = s + static_cast<size_t>(c) * stride;
                        sc[0] += w[c];
                        for (int i = 0; i < d; ++i) diff[i] = x[i] - g[c].mean[i];
                        for (int i = 0; i < d; ++i) {
                            sc[1 + i] += w[c] * diff[i];
                            for (int j = 0; j <= i; ++j) sc[1 + d + i * d + j] += w[c] * diff[i] * diff[j];
                        }
                    }
                }
                lls[b] = l;
            }
        });
        ll = 0.0;
        for (double l : lls) ll += l;
        std::vector<Gaussian> out(k);
        for (int c = 0; c < k; ++c) {
            std::vector<double> t(stride, 0.0);
            for (int b = 0; b < blocks_; ++b) {
                const double* sc = &sums[(static_cast<size_t>(b) * k + c) * stride];
                for (size_t i = 0; i < stride; ++i) t[i] += sc[i];
            }
            Gaussian& o = out[c];
            o.count = t[0];
            o.active = g[c].active && o.count > 0.0;
            o.mean.assign(d, 0.0);
            o.cov.assign(static_cast<size_t>(d) * d, 0.0);
            if (!o.active) continue;
            std::vector<double> shift(d);
            for (int i = 0; i < d; ++i) {
                shift[i] = t[1 + i] / o.count;
                o.mean[i] = g[c].mean[i] + shift[i];
            }
            for (int i = 0; i < d; ++i)
                for (int j = 0; j <= i; ++j) {
                    const double v =
                        t[1 + d + i * d + j] / o.count - shift[i] * shift[j] + (i == j ? kRounding : 0.0);
                    o.cov[static_cast<size_t>(i) * d + j] = v;
                    o.cov[static_cast<size_t>(j) * d + i] = v;
                }
        }
        for (Gaussian& o : out) prepare(o, d);
        return out;
    }

    // EM from g until the log-likelihood settles; returns the last Gaussians.
    std::vector<Gaussian> em(std::vector<Gaussian> g) {
        double last = kNone;
        for (int it = 0; it < kEmIterations; ++it) {
            double ll = 0.0;
            std::vector<Gaussian> next = emStep(g, ll);
            if (it > 0 && ll - last <= 1e-3 * (n_ / emStride_)) break;
            last = ll;
            g = std::move(next);
        }
        return g;
    }

    // Most probable class of every pixel under the mixture.
    std::vector<int> mapLabels(const std::vector<Gaussian>& g) {
        std::vector<int> z(static_cast<size_t>(n_));
        dhc::forChunks(n_, kBlock, [&](int begin, int end, int) {
            std::vector<double> w(k_), diff(d_);
            for (int p = begin; p < end; ++p) {
                posteriors(g, &px_.values[static_cast<size_t>(p) * d_], w.data(), diff.data());
                int best = 0;
                for (int c = 1; c < k_; ++c)
                    if (w[c] > w[best]) best = c;
                z[p] = best;
            }
        });
        return z;
    }

    // Neighbour counts per class of pixel p on the plane.
    void neighbourCounts(int p, int* counts) const {
        std::fill(counts, counts + k_, 0);
        const int r = px_.rows[p] + pad_, c = px_.cols[p] + pad_;
        for (int dr = -1; dr <= 1; ++dr)
            for (int dc = -1; dc <= 1; ++dc) {
                if (dr == 0 && dc == 0) continue;
                const int l = plane_[r + dr][c + dc];
                if (l >= 0 && static_cast<size_t>(l) < classOfLabel_.size() && classOfLabel_[l] >= 0)
                    ++counts[classOfLabel_[l]];
            }
    }

    // Potts pseudo-likelihood of the plane's map as a function of beta: the
    // neighbour configurations counted once (own count, histogram of the other
    // classes' counts).
    struct Configs {
        std::vector<std::pair<uint64_t, long long>> count;  // by key
        int k = 0;
        double at(double beta) const {
            double s = 0.0;
            for (const auto& e : count) {
                int own = static_cast<int>(e.first & 15);
                double z = std::exp(beta * own);
                int others = 0;
                for (int j = 1; j <= 8; ++j) {
                    const int h = static_cast<int>((e.first >> (4 * j)) & 15);
                    z += h * std::exp(beta * j);
                    others += h;
                }
                z += (k - 1 - others);
                s += e.second * (beta * own - std::log(z));
            }
            return s;
        }
        double slope(double beta) const {
            double s = 0.0;
            for (const auto& e : count) {
                int own = static_cast<int>(e.first & 15);
                double z = std::exp(beta * own), zn = own * std::exp(beta * own);
                int others = 0;
                for (int j = 1; j <= 8; ++j) {
                    const int h = static_cast<int>((e.first >> (4 * j)) & 15);
                    z += h * std::exp(beta * j);
                    zn += h * j * std::exp(beta * j);
                    others += h;
                }
                z += (k - 1 - others);
                s += e.second * (own - zn / z);
            }
            return s;
        }
    };
    Configs configs(const std::vector<int>& z) {
        Configs out;
        // The classes of the model are those the map holds.
        std::vector<char> present(static_cast<size_t>(k_), 0);
        for (int c : z)
            if (c >= 0) present[c] = 1;
        out.k = static_cast<int>(std::count(present.begin(), present.end(), 1));
        std::vector<int> counts(k_);
        for (int p = 0; p < n_; ++p) {
            if (z[p] < 0) continue;
            neighbourCounts(p, counts.data());
            uint64_t key = static_cast<uint64_t>(counts[z[p]]);
            int hist[9] = {0};
            for (int c = 0; c < k_; ++c)
                if (c != z[p] && counts[c] > 0) ++hist[counts[c]];
            for (int j = 1; j <= 8; ++j) key |= static_cast<uint64_t>(hist[j]) << (4 * j);
            ++counts_[key];
        }
        out.count.assign(counts_.begin(), counts_.end());
        counts_.clear();
        std::sort(out.count.begin(), out.count.end());
        return out;
    }
    // The maximum-pseudo-likelihood beta in [betaMin, betaMax] (the score is
    // concave in beta: bisection on its slope).
    double betaOf(const Configs& cf) const {
        double lo = betaMin_, hi = betaMax_;
        if (cf.slope(hi) >= 0.0) return hi;
        if (cf.slope(lo) <= 0.0) return lo;
        for (int i = 0; i < 60 && hi - lo > 1e-6; ++i) {
            const double mid = 0.5 * (lo + hi);
            (cf.slope(mid) > 0.0 ? lo : hi) = mid;
        }
        return 0.5 * (lo + hi);
    }

    // Pseudo-likelihood of the plane's map; also its Gaussians and beta.
    double pseudoLikelihood(const std::vector<int>& z, std::vector<Gaussian>& g, double& beta) {
        paint(z);
        g = estimate(&z);
        const Configs cf = configs(z);
        beta = betaOf(cf);
        std::vector<double> sums(static_cast<size_t>(blocks_), 0.0);
        dhc::forChunks(blocks_, 1, [&](int first, int last, int) {
            std::vector<double> diff(d_);
            for (int b = first; b < last; ++b) {
                const int end = std::min(n_, (b + 1) * kBlock);
                double s = 0.0;
                for (int p = b * kBlock; p < end; ++p)
                    if (z[p] >= 0 && g[z[p]].active)
                        s += logDensity(g[z[p]], &px_.values[static_cast<size_t>(p) * d_], d_, diff.data());
                sums[b] = s;
            }
        });
        double total = cf.at(beta);
        for (double s : sums) total += s;
        return total;
    }

    // ICM sweeps in pixel order on the plane; z follows.  The class
    // densities are tabled once (in blocks, on the run's threads) when the
    // table is not too large.  Returns the changes.
    long long icm(std::vector<int>& z, const std::vector<Gaussian>& g, double beta) {
        paint(z);
        const size_t entries = static_cast<size_t>(n_) * static_cast<size_t>(k_);
        std::vector<float> table;
        if (entries <= (size_t{1} << 27)) {
            table.resize(entries);
            dhc::forChunks(blocks_, 1, [&](int first, int last, int) {
                std::vector<double> diff(d_);
                for (int p = first * kBlock; p < std::min(n_, last * kBlock); ++p)
                    for (int c = 0; c < k_; ++c)
                        table[static_cast<size_t>(p) * k_ + c] = static_cast<float>(
                            g[c].active ? logDensity(g[c], &px_.values[static_cast<size_t>(p) * d_], d_, diff.data())
                                        : kNone);
            });
        }
        long long changed = 0;
        std::vector<int> counts(k_);
        std::vector<double> diff(d_);
        for (int sweep = 0; sweep < kMaxSweeps; ++sweep) {
            long long changes = 0;
            for (int p = 0; p < n_; ++p) {
                neighbourCounts(p, counts.data());
                const int* x = &px_.values[static_cast<size_t>(p) * d_];
                int best = -1;
                double bestScore = kNone;
                for (int c = 0; c < k_; ++c) {
                    if (!g[c].active) continue;
                    const double density = table.empty() ? logDensity(g[c], x, d_, diff.data())
                                                         : table[static_cast<size_t>(p) * k_ + c];
                    const double score = density + beta * counts[c];
                    if (best < 0 || score > bestScore) {
                        best = c;
                        bestScore = score;
                    }
                }
                if (best >= 0 && best != z[p]) {
                    z[p] = best;
                    plane_[px_.rows[p] + pad_][px_.cols[p] + pad_] = px_.labels[best];
                    ++changes;
                }
            }
            changed += changes;
            if (changes * 1000 <= n_) break;
        }
        return changed;
    }

    // Neighbour pairs of the map z by classes: entry a * k + b counts the
    // pixels' neighbours in class b of the pixels in class a.
    std::vector<long long> pairCounts(const std::vector<int>& z) {
        paint(z);
        std::vector<long long> pairs(static_cast<size_t>(k_) * k_, 0);
        std::vector<int> counts(k_);
        for (int p = 0; p < n_; ++p) {
            if (z[p] < 0) continue;
            neighbourCounts(p, counts.data());
            for (int c = 0; c < k_; ++c) pairs[static_cast<size_t>(z[p]) * k_ + c] += counts[c];
        }
        return pairs;
    }

  private:
    const FinalPixels& px_;
    int** plane_;
    int pad_, d_, k_, n_, blocks_ = 0, emStride_ = 1;
    double betaMin_, betaMax_;
    std::vector<int> classOfLabel_;
    std::unordered_map<uint64_t, long long> counts_;
};

// Classes present in z.
int presentClasses(const std::vector<int>& z, int k) {
    std::vector<char> seen(static_cast<size_t>(k), 0);
    int n = 0;
    for (int c : z)
        if (c >= 0 && !seen[c]) {
            seen[c] = 1;
            ++n;
        }
    return n;
}

// What merging classes a and b costs their pixels' log-likelihood, each
// class under the Gaussian fitted to it: half of n ln det of the merged
// covariance less the same of the two.
double mergeCost(const Gaussian& a, const Gaussian& b, int d) {
    const double n = a.count + b.count;
    Gaussian m;
    m.active = true;
    m.cov.assign(static_cast<size_t>(d) * d, 0.0);
    for (int i = 0; i < d; ++i)
        for (int j = 0; j < d; ++j) {
            const size_t ij = static_cast<size_t>(i) * d + j;
            m.cov[ij] = (a.count * a.cov[ij] + b.count * b.cov[ij]) / n +
                        a.count * b.count / (n * n) * (a.mean[i] - b.mean[i]) * (a.mean[j] - b.mean[j]);
        }
    prepare(m, d);
    if (!m.active) return std::numeric_limits<double>::infinity();
    // logNorm = -(d ln 2 pi + ln det) / 2; the d ln 2 pi terms cancel.
    return a.count * a.logNorm + b.count * b.logNorm - n * m.logNorm;
}

// Merges classes while the map's pseudo-likelihood loses less than what a
// class costs under the Bayesian information criterion, half ln N for each
// of its mean and covariance entries.  EM started from leaves that cut one
// class in parts can keep the parts: a binary tree must cut a class to
// separate two others.  The pair that looks cheapest goes first (its
// Gaussians' cost less beta for each neighbour pair the merge joins); the
// merged map is settled by ICM and kept when its pseudo-likelihood less the
// classes' cost is higher.
void mergeClasses(Refiner& r, int d, std::vector<int>& best, std::vector<Gaussian>& bestG, double& bestBeta,
                  double& bestPl, int& merged) {
    const double perClass = 0.5 * std::log(static_cast<double>(r.n())) * (d + 0.5 * d * (d + 1));
    for (;;) {
        const int k = presentClasses(best, r.k());
        int into = -1, from = -1;
        double cheapest = perClass;
        const std::vector<long long> pairs = r.pairCounts(best);
        const int kk = r.k();
        for (int a = 0; a < kk; ++a)
            for (int b = a + 1; b < kk; ++b) {
                if (!bestG[a].active || !bestG[b].active) continue;
                const double joined = static_cast<double>(pairs[static_cast<size_t>(a) * kk + b] +
                                                          pairs[static_cast<size_t>(b) * kk + a]);
                const double cost = mergeCost(bestG[a], bestG[b], d) - bestBeta * joined;
                if (cost < cheapest) {
                    cheapest = cost;
                    into = a;
                    from = b;
                }
            }
        if (into < 0) return;
        std::vector<int> z = best;
        for (int& c : z)
            if (c == from) c = into;
        std::vector<Gaussian> g;
        double beta = bestBeta;
        double pl = r.pseudoLikelihood(z, g, beta);
        std::vector<int> top = z;
        std::vector<Gaussian> topG = g;
        double topBeta = beta, topPl = pl;
        // One ICM round from the merged classes settles the map enough to
        // judge the merge (each round costs as much as a refinement round).
        r.icm(z, g, beta);
        pl = r.pseudoLikelihood(z, g, beta);
        if (pl > topPl) {
            top = z;
            topG = g;
            topBeta = beta;
            topPl = pl;
        }
        const int left = presentClasses(top, r.k());
        if (!(topPl - left * perClass > bestPl - k * perClass)) return;
        best = std::move(top);
        bestG = std::move(topG);
        bestBeta = topBeta;
        bestPl = topPl;
        merged += k - left;
    }
}

}  // namespace

FinalModel refineFinalMap(const FinalPixels& pixels, int** plane, int pad, int rounds, double betaMin,
                          double betaMax) {
    FinalModel model;
    Refiner r(pixels, plane, pad, betaMin, betaMax);
    if (r.n() == 0 || r.k() == 0) return model;
    std::vector<int> best = r.classes();
    std::vector<Gaussian> bestG;
    double bestBeta = 0.0;
    const double tree = r.pseudoLikelihood(best, bestG, bestBeta);
    double bestPl = tree;
    model.treePseudoLikelihood = tree;

    std::vector<int> z = best;
    std::vector<Gaussian> g = bestG;
    double beta = bestBeta;
    double last = tree;
    for (int round = 1; round <= rounds && r.k() > 1; ++round) {
        model.rounds = round;
        if (round == 1) {
            g = r.em(g);
            z = r.mapLabels(g);
            std::vector<Gaussian> unused;
            r.pseudoLikelihood(z, unused, beta);
        }
        // Later rounds start from the Gaussians and beta of the map the last
        // one left (computed with its pseudo-likelihood).
        const long long changes = r.icm(z, g, beta);
        const double pl = r.pseudoLikelihood(z, g, beta);
        const bool better = pl > bestPl;
        if (better) {
            bestPl = pl;
            best = z;
            bestG = g;
            bestBeta = beta;
            model.refined = true;
        }
        // Settled: nothing moved, or the map gained less than a hundredth
        // of a nat per pixel.
        if (round > 1 && (changes == 0 || pl - last < 1e-2 * r.n())) break;
        last = pl;
    }
    if (rounds > 0) {
        mergeClasses(r, pixels.bands, best, bestG, bestBeta, bestPl, model.merged);
        if (model.merged > 0) model.refined = true;
    }
    r.paint(best);
    model.beta = bestBeta;
    model.pseudoLikelihood = bestPl;
    const int d = pixels.bands;
    std::vector<long long> area(static_cast<size_t>(r.k()), 0);
    for (int c : best)
        if (c >= 0) ++area[c];
    for (int c = 0; c < r.k(); ++c) {
        FinalClass fc;
        fc.label = pixels.labels[c];
        fc.area = area[c];
        if (bestG[c].active) {
            fc.mean = bestG[c].mean;
            for (int i = 0; i < d; ++i)
                fc.covariance.emplace_back(bestG[c].cov.begin() + static_cast<long>(i) * d,
                                           bestG[c].cov.begin() + static_cast<long>(i + 1) * d);
        }
        model.classes.push_back(std::move(fc));
    }
    return model;
}

}  // namespace dhc
