#include "stats/FMSC.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>

#include "settings/ConfigFileParser.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "settings/Random.h"
#include "settings/RowMatrix.h"

namespace {

constexpr int kMaxIterations = 500;
// Two centres closer than this many bandwidths are the same mode.
constexpr double kSameMode = 0.5;

// ||(a - b) / h||
double scaledDistance(const double* a, const double* b, double h, int d) {
    double s = 0.0;
    for (int i = 0; i < d; ++i) {
        const double t = (a[i] - b[i]) / h;
        s += t * t;
    }
    return std::sqrt(s);
}

}  // namespace

FMSC::FMSC(double** points, int d, int n, int k, double hLow, double hHigh, int autoAdjustKNN, double tol,
           double skip, int kernel) {
    setup(points, d, n, k, hLow, hHigh, autoAdjustKNN, tol, skip, kernel);
}

FMSC::FMSC(double** points, int d, int n, int k, double hLow, double hHigh, const char* iniFile) {
    ConfigFileParser parser(iniFile);
    if (!parser.seekArgument("MEANSHIFT")) dhc::fatal(-1);
    DHC_SET s;
    s.readMeanShift(parser);
    setup(points, d, n, k, hLow, hHigh, s.autoAdjustkNN, s.tolerance, s.skipLast, s.kernelType);
}

void FMSC::setup(double** points, int d, int n, int k, double hLow, double hHigh, int autoAdjustKNN,
                 double tol, double skip, int kernel) {
    data = points;
    dim = d;
    nPoints = n;
    knn = k;
    hMin = hLow;
    hMax = hHigh;
    tolerance = tol;
    skipLast = skip;
    kernelType = kernel;
    shift.assign(std::max(dim, 0), 0.0);
    center.assign(std::max(dim, 0), 0.0);
    classification.reset();
    farValue = DBL_MAX;
    // Logging is off while the log files would be opened, so they never are.
    logging = false;
    if (autoAdjustKNN >= 1) azimuth(autoAdjustKNN, 7, 0.5, 20.0, 500);
}

bool FMSC::setStartCenter(int& i) {
    for (i = 0; i < nPoints; ++i) {
        if (classification == nullptr || classification[i] == 0) {
            for (int c = 0; c < dim; ++c) center[c] = data[i][c];
            return true;
        }
    }
    return false;
}

void FMSC::setRandomStartCenter() {
    const int i = dhc::processRandom().next() % nPoints;
    for (int c = 0; c < dim; ++c) center[c] = data[i][c];
}

double FMSC::findCenter(std::vector<int>& visited) {
    visited.assign(std::max(nPoints, 0), 0);
    const double tau = std::pow(10.0, 0.5 * (std::log10(hMin) + std::log10(hMax))) * 0.001;
    const double hMin2 = hMin * hMin;
    const double hMax2 = hMax * hMax;

    std::vector<double> dist2(nPoints);
    std::vector<int> neighbours;
    std::vector<double> neighbourDist2;
    std::vector<double> weighted(dim);
    std::vector<double> step(dim, 0.0);
    std::vector<int> order(nPoints);
    const auto nearer = [&dist2](int a, int b) {
        return dist2[a] < dist2[b] || (dist2[a] == dist2[b] && a < b);
    };
    double movement = 1.0;
    double bandwidthSum = 0.0;
    int iterations = 0;

    while (movement > tau && iterations < kMaxIterations) {
        for (int p = 0; p < nPoints; ++p) {
            double s = 0.0;
            for (int c = 0; c < dim; ++c) {
                const double t = center[c] - data[p][c];
                s += t * t;
            }
            dist2[p] = s;
        }

        // Grow the neighbourhood one nearest point at a time until it holds knn
        // points with a bandwidth of at least hMin, or the bandwidth reaches hMax.
        // Taking the nearest remaining point and marking it far away (lowest
        // index among equals) is done here by walking the points in (distance,
        // index) order, sorted lazily in growing chunks.  Once every point is
        // taken, the marks themselves are taken (point 0 at farValue), which
        // pushes the bandwidth past hMax.
        neighbours.clear();
        neighbourDist2.clear();
        for (int p = 0; p < nPoints; ++p) order[p] = p;
        int sorted = 0;
        double total = 0.0;
        double h2 = 0.0;
        for (int taken = 0;; ++taken) {
            int j = 0;
            double dj = farValue;
            if (taken < nPoints) {
                if (taken == sorted) {
                    const int end = std::min(nPoints, std::max(2 * sorted, knn + 1));
                    std::partial_sort(order.begin() + sorted, order.begin() + end, order.end(), nearer);
                    sorted = end;
                }
                j = order[taken];
                dj = dist2[j];
            }
            neighbours.push_back(j);
            neighbourDist2.push_back(dj);
            total += dj;
            const int m = taken + 1;
            h2 = total / m;
            // Past the last point the bandwidth is huge, but a NaN distance
            // compares false with everything: stop there all the same.
            if ((m >= knn && h2 >= hMin2) || h2 >= hMax2 || taken >= nPoints) break;
        }

        double weightSum = 0.0;
        for (int c = 0; c < dim; ++c) weighted[c] = 0.0;
        for (std::size_t t = 0; t < neighbours.size(); ++t) {
            const int j = neighbours[t];
            if (neighbourDist2[t] < h2) visited[j] = 1;
            const double w = 0.5 * std::exp(-0.5 * neighbourDist2[t] / h2);
            weightSum += w;
            for (int c = 0; c < dim; ++c) weighted[c] += w * data[j][c];
        }

        double moved = 0.0;
        for (int c = 0; c < dim; ++c) {
            step[c] = weighted[c] / weightSum - center[c];
            shift[c] = center[c];
            center[c] += step[c];
            const double t = center[c] - shift[c];
            moved += t * t;
        }
        movement = std::sqrt(moved);
        bandwidthSum += std::sqrt(h2);
        ++iterations;
        if (logging) {
            for (int c = 0; c < dim; ++c) msLog << center[c] << ' ';
            msLog << '\n';
            hLog << std::sqrt(h2) << '\n';
        }
    }

    double norm = 0.0;
    for (int c = 0; c < dim; ++c) norm += step[c] * step[c];
    norm = std::sqrt(norm);
    for (int c = 0; c < dim; ++c) shift[c] = step[c] / norm;
    return iterations > 0 ? bandwidthSum / iterations : 0.0;
}

void FMSC::findModes() {
    modes.clear();
    modeCounts.clear();
    modeVisits.clear();
    pending.clear();
    deleted.clear();
    classification.reset(new int[nPoints]());

    // A point set with a non-finite coordinate (the projection of a sample
    // without spread) has no modes; seeding from it would never converge.
    for (int p = 0; p < nPoints; ++p)
        for (int c = 0; c < dim; ++c)
            if (!std::isfinite(data[p][c])) return;

    const double seedLimit = (1.0 - skipLast) * nPoints;
    int assigned = 0;
    int start;
    while (setStartCenter(start) && assigned < seedLimit) {
        std::vector<int> visited;
        const double h = findCenter(visited);
        pending.clear();
        for (int p = 0; p < nPoints; ++p)
            if (visited[p] != 0) pending.push_back(p);

        int joined = -1;
        for (std::size_t j = 0; j < modes.size(); ++j) {
            if (scaledDistance(modes[j].data(), center.data(), h, dim) < kSameMode) {
                joined = static_cast<int>(j);
                break;
            }
        }
        if (joined >= 0) {
            for (int p : pending) {
                modeVisits[joined][p] += visited[p];
                classification[p] = joined + 1;
            }
        } else {
            modes.emplace_back(center.begin(), center.end());
            modeVisits.emplace_back(visited.begin(), visited.end());
            const int number = static_cast<int>(modes.size());
            for (int p : pending) classification[p] = number;
        }
        assigned = getClassified();
    }
}

void FMSC::finalize() {
    modeCounts.assign(modes.size(), 0);
    if (classification == nullptr || modes.empty()) return;
    for (int p = 0; p < nPoints; ++p) {
        if (classification[p] == 0) continue;
        std::size_t best = 0;
        for (std::size_t j = 1; j < modes.size(); ++j)
            if (modeVisits[j][p] > modeVisits[best][p]) best = j;
        classification[p] = static_cast<int>(best) + 1;
        ++modeCounts[best];
    }
}

void FMSC::deleteNonModes() {
    const int count = static_cast<int>(modes.size());
    if (count < 2) return;
    std::vector<bool> drop(count, false);
    int kept = 0;
    for (int j = 0; j < count; ++j) {
        if (modeCounts[j] < tolerance * nPoints) {
            drop[j] = true;
            deleted.push_back(j + 1);
        } else {
            kept += modeCounts[j];
        }
    }
    // Modes that explain less than 70 % of the points explain nothing.
    if (kept < 0.7 * nPoints) {
        for (int j = 0; j < count; ++j) {
            if (!drop[j]) {
                drop[j] = true;
                deleted.push_back(j + 1);
            }
        }
    }

    // Kept modes move up to close the gaps; their points follow so that a
    // classification always indexes the modes list.
    std::vector<int> renumber(count + 1, 0);
    int next = 0;
    for (int j = 0; j < count; ++j) {
        if (drop[j]) continue;
        renumber[j + 1] = next + 1;
        if (next != j) {
            modes[next] = std::move(modes[j]);
            modeVisits[next] = std::move(modeVisits[j]);
            modeCounts[next] = modeCounts[j];
        }
        ++next;
    }
    modes.resize(next);
    modeVisits.resize(next);
    modeCounts.resize(next);
    for (int p = 0; p < nPoints; ++p) classification[p] = renumber[classification[p]];
}

void FMSC::azimuth(int target, int slots, double lowFactor, double highFactor, int maxAdjust) {
    const int knn0 = knn;
    std::vector<std::vector<double>> found;
    int k = 0;
    int seq = 0;
    int adjustments = 0;
    const int patience = static_cast<int>(std::ceil(slots * 0.5));
    for (;;) {
        if ((k == target && seq >= slots) || adjustments >= maxAdjust || knn >= highFactor * knn0 ||
            knn <= lowFactor * knn0)
            break;
        setRandomStartCenter();
        std::vector<int> visited;
        const double h = findCenter(visited);
        dhc::out() << "k = " << k << ", seq = " << seq << ", k_nn = " << knn << std::endl;

        if (found.empty()) {
            found.emplace_back(center.begin(), center.end());
            k = 1;
        }
        bool repeat = false;
        for (const std::vector<double>& mode : found) {
            if (scaledDistance(mode.data(), center.data(), h, dim) < kSameMode) {
                repeat = true;
                break;
            }
        }
        if (repeat) {
            ++seq;
        } else {
            found.emplace_back(center.begin(), center.end());
            ++k;
            seq = 0;
        }

        if (!repeat && k > target) {
            // Too many modes: widen the neighbourhood and start counting again.
            knn = static_cast<int>(std::ceil(1.05 * knn));
            ++adjustments;
            found.clear();
            k = 0;
            seq = 1;
        } else if (k < target && seq > patience) {
            // The same few modes keep coming back: narrow the neighbourhood.
            knn = static_cast<int>(std::ceil(0.95 * knn));
            ++adjustments;
            found.clear();
            k = 0;
            seq = 0;
        }
    }
    logging = true;
}

double** FMSC::getModes(int& k) {
    findModes();
    finalize();
    deleteNonModes();
    k = static_cast<int>(modes.size());
    double** result = dhc::newRows<double>(k, dim);
    for (int j = 0; j < k; ++j) std::copy(modes[j].begin(), modes[j].begin() + dim, result[j]);
    return result;
}

int* FMSC::getPointsForMode(int& k) {
    k = static_cast<int>(modes.size());
    int* result = new int[k];
    for (int j = 0; j < k; ++j) result[j] = modeCounts[j];
    return result;
}

int* FMSC::getClassification(int& k) {
    k = static_cast<int>(modes.size());
    if (classification == nullptr) return nullptr;
    int* result = new int[nPoints];
    for (int p = 0; p < nPoints; ++p) result[p] = classification[p];
    return result;
}

int FMSC::getClassified() {
    if (classification == nullptr) return 0;
    int count = 0;
    for (int p = 0; p < nPoints; ++p)
        if (classification[p] != 0) ++count;
    return count;
}
