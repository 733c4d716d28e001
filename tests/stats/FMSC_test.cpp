#include "stats/FMSC.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "settings/Fatal.h"

namespace {

// n x d points in row-pointer form.
class Points {
  public:
    void add(std::vector<double> p) { rows_.push_back(std::move(p)); }
    double** get() {
        ptrs_.clear();
        for (auto& r : rows_) ptrs_.push_back(r.data());
        return ptrs_.data();
    }
    int size() const { return static_cast<int>(rows_.size()); }
    const std::vector<double>& operator[](int i) const { return rows_[i]; }

  private:
    std::vector<std::vector<double>> rows_;
    std::vector<double*> ptrs_;
};

// Points of a Gaussian blob, appended.
void addBlob(Points& pts, std::mt19937& gen, const std::vector<double>& centre, double sd, int count) {
    std::normal_distribution<double> noise(0.0, sd);
    for (int i = 0; i < count; ++i) {
        std::vector<double> p(centre);
        for (double& x : p) x += noise(gen);
        pts.add(p);
    }
}

// count points within 0.01 of a 2-D centre: tight enough that one search
// from any of them visits exactly this group (its bandwidth is set by the next group).
void addTightGroup(Points& pts, double cx, double cy, int count) {
    for (int i = 0; i < count; ++i) {
        const double a = 2.0 * M_PI * i / count;
        pts.add({cx + 0.01 * std::cos(a), cy + 0.01 * std::sin(a)});
    }
}

// Literal mean shift from a centre: repeatedly take the nearest remaining
// point (first index among equals) and mark it with the largest double.
struct Search {
    std::vector<double> centre;
    std::vector<int> visited;
    double meanH = 0.0;
};

Search referenceSearch(const Points& pts, std::vector<double> centre, int knn, double hMin, double hMax) {
    const int n = pts.size();
    const int d = static_cast<int>(centre.size());
    Search s;
    s.visited.assign(n, 0);
    const double tau = 0.001 * std::sqrt(hMin * hMax);
    double movement = 1.0, hSum = 0.0;
    int iterations = 0;
    while (movement > tau && iterations < 500) {
        std::vector<double> dist2(n);
        for (int p = 0; p < n; ++p) {
            dist2[p] = 0.0;
            for (int c = 0; c < d; ++c) dist2[p] += (centre[c] - pts[p][c]) * (centre[c] - pts[p][c]);
        }
        std::vector<int> taken;
        std::vector<double> takenDist2;
        double total = 0.0, h2 = 0.0;
        for (;;) {
            int best = 0;
            for (int p = 1; p < n; ++p)
                if (dist2[p] < dist2[best]) best = p;
            taken.push_back(best);
            takenDist2.push_back(dist2[best]);
            total += dist2[best];
            dist2[best] = DBL_MAX;
            h2 = total / taken.size();
            if ((static_cast<int>(taken.size()) >= knn && h2 >= hMin * hMin) || h2 >= hMax * hMax) break;
        }
        double wSum = 0.0;
        std::vector<double> wx(d, 0.0);
        for (std::size_t t = 0; t < taken.size(); ++t) {
            if (takenDist2[t] < h2) s.visited[taken[t]] = 1;
            const double w = 0.5 * std::exp(-0.5 * takenDist2[t] / h2);
            wSum += w;
            for (int c = 0; c < d; ++c) wx[c] += w * pts[taken[t]][c];
        }
        double moved = 0.0;
        for (int c = 0; c < d; ++c) {
            const double step = wx[c] / wSum - centre[c];
            centre[c] += step;
            moved += step * step;
        }
        movement = std::sqrt(moved);
        hSum += std::sqrt(h2);
        ++iterations;
    }
    s.centre = centre;
    s.meanH = hSum / iterations;
    return s;
}

TEST(FMSCSearch, MatchesALiteralNearestNeighbourReference) {
    std::mt19937 gen(5);
    Points pts;
    addBlob(pts, gen, {0, 0, 0}, 1.0, 60);
    addBlob(pts, gen, {4, 1, 0}, 0.7, 40);
    // knn 15: the usual case; knn 150 > n: the neighbourhood runs out of points.
    for (int knn : {15, 150}) {
        FMSC ms(pts.get(), 3, pts.size(), knn, 0.05, 100.0, 0, 0.0, 0.0, 0);
        for (int start : {0, 17, 63, 99}) {
            for (int c = 0; c < 3; ++c) ms.center[c] = pts[start][c];
            int* visited = nullptr;
            const double h = ms.findCenter(visited);
            const Search ref = referenceSearch(pts, pts[start], knn, 0.05, 100.0);
            EXPECT_NEAR(h, ref.meanH, 1e-9 * ref.meanH) << "knn " << knn << " start " << start;
            double shiftNorm = 0.0;
            for (int c = 0; c < 3; ++c) {
                EXPECT_NEAR(ms.center[c], ref.centre[c], 1e-9) << "knn " << knn << " start " << start;
                shiftNorm += ms.shift[c] * ms.shift[c];
            }
            EXPECT_NEAR(shiftNorm, 1.0, 1e-9);
            for (int p = 0; p < pts.size(); ++p) ASSERT_EQ(visited[p], ref.visited[p]) << "point " << p;
            delete[] visited;
        }
    }
}

TEST(FMSCModes, ThreeSeparatedBlobsGiveThreeModesWithTheirPopulations) {
    std::mt19937 gen(21);
    Points pts;
    const std::vector<std::vector<double>> centres = {{0, 0, 0}, {8, 0, 0}, {0, 8, 0}};
    const int sizes[3] = {100, 150, 200};
    for (int b = 0; b < 3; ++b) addBlob(pts, gen, centres[b], 0.5, sizes[b]);

    // A neighbourhood as large as the smallest blob, as in the engine where knn
    // is a sizeable fraction of n; smaller ones let sampling noise split the
    // largest blob into sub-modes.
    FMSC ms(pts.get(), 3, pts.size(), 100, 0.05, 100.0, 0, 0.05, 0.0, 0);
    int k = -1;
    double** modes = ms.getModes(k);
    ASSERT_EQ(k, 3);
    int kk = -1;
    int* counts = ms.getPointsForMode(kk);
    int* cls = ms.getClassification(kk);
    EXPECT_EQ(kk, 3);
    EXPECT_EQ(ms.getClassified(), pts.size());

    // Match each blob to its nearest mode: it must sit near the centre and own exactly the blob.
    int first = 0;
    for (int b = 0; b < 3; ++b) {
        int nearest = 0;
        double best = 1e300;
        for (int j = 0; j < 3; ++j) {
            double dd = 0.0;
            for (int c = 0; c < 3; ++c) dd += (modes[j][c] - centres[b][c]) * (modes[j][c] - centres[b][c]);
            if (dd < best) {
                best = dd;
                nearest = j;
            }
        }
        EXPECT_LT(std::sqrt(best), 0.3) << "blob " << b;
        EXPECT_EQ(counts[nearest], sizes[b]) << "blob " << b;
        for (int p = first; p < first + sizes[b]; ++p) ASSERT_EQ(cls[p], nearest + 1) << "point " << p;
        first += sizes[b];
    }
    for (int j = 0; j < 3; ++j) delete[] modes[j];
    delete[] modes;
    delete[] counts;
    delete[] cls;
}

TEST(FMSCModes, SmallModesArePrunedByTolerance) {
    // One group of 60 and three groups of 2, far apart (n = 66).
    auto build = [](Points& pts) {
        addTightGroup(pts, 0, 0, 60);
        addTightGroup(pts, 10, 0, 2);
        addTightGroup(pts, 0, 10, 2);
        addTightGroup(pts, 10, 10, 2);
    };
    {
        Points pts;
        build(pts);
        FMSC ms(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.0, 0.0, 0);
        int k;
        double** modes = ms.getModes(k);
        EXPECT_EQ(k, 4);  // tolerance 0 removes nothing
        for (int j = 0; j < k; ++j) delete[] modes[j];
        delete[] modes;
    }
    Points pts;
    build(pts);
    // 2 < 0.1 * 66: the three small modes go, 60 of 66 points (>= 70 %) remain.
    FMSC ms(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.1, 0.0, 0);
    int k;
    double** modes = ms.getModes(k);
    ASSERT_EQ(k, 1);
    EXPECT_NEAR(modes[0][0], 0.0, 0.05);
    EXPECT_NEAR(modes[0][1], 0.0, 0.05);
    EXPECT_EQ(ms.deleted, (std::vector<int>{2, 3, 4}));
    int* counts = ms.getPointsForMode(k);
    EXPECT_EQ(counts[0], 60);
    int* cls = ms.getClassification(k);
    for (int p = 0; p < 60; ++p) EXPECT_EQ(cls[p], 1);
    for (int p = 60; p < 66; ++p) EXPECT_EQ(cls[p], 0);
    EXPECT_EQ(ms.getClassified(), 60);
    delete[] modes[0];
    delete[] modes;
    delete[] counts;
    delete[] cls;
}

TEST(FMSCModes, ModesCoveringLessThanSeventyPercentAreAllDropped) {
    // Groups of 40, 20, 20, 20; tolerance 0.25 keeps only the 40, which is below 70 of 100.
    Points pts;
    addTightGroup(pts, 0, 0, 40);
    addTightGroup(pts, 10, 0, 20);
    addTightGroup(pts, 20, 0, 20);
    addTightGroup(pts, 30, 0, 20);
    FMSC ms(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.25, 0.0, 0);
    int k = -1;
    double** modes = ms.getModes(k);
    EXPECT_EQ(k, 0);
    EXPECT_EQ(ms.getClassified(), 0);
    delete[] modes;

    // With tolerance 0.15 all four stay.
    FMSC keep(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.15, 0.0, 0);
    modes = keep.getModes(k);
    EXPECT_EQ(k, 4);
    for (int j = 0; j < k; ++j) delete[] modes[j];
    delete[] modes;
}

TEST(FMSCModes, SkipLastStopsSeedingAtNinetyPercent) {
    // Ten groups of 10 along a line; every search files exactly one group.
    Points pts;
    for (int g = 0; g < 10; ++g) addTightGroup(pts, 10.0 * g, 0, 10);
    FMSC ms(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.0, 0.1, 0);
    int k;
    double** modes = ms.getModes(k);
    ASSERT_EQ(k, 9);
    int* cls = ms.getClassification(k);
    for (int g = 0; g < 9; ++g)
        for (int p = 10 * g; p < 10 * g + 10; ++p) EXPECT_EQ(cls[p], g + 1) << "point " << p;
    for (int p = 90; p < 100; ++p) EXPECT_EQ(cls[p], 0);
    for (int j = 0; j < k; ++j) delete[] modes[j];
    delete[] modes;
    delete[] cls;

    FMSC all(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.0, 0.0, 0);
    modes = all.getModes(k);
    EXPECT_EQ(k, 10);
    for (int j = 0; j < k; ++j) delete[] modes[j];
    delete[] modes;
}

TEST(FMSCModes, GettersBeforeAnySearch) {
    Points pts;
    addTightGroup(pts, 0, 0, 5);
    FMSC ms(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, 0.0, 0.0, 0);
    int k = -1;
    EXPECT_EQ(ms.getClassification(k), nullptr);
    EXPECT_EQ(k, 0);
    EXPECT_EQ(ms.getClassified(), 0);
    int i = -1;
    EXPECT_TRUE(ms.setStartCenter(i));
    EXPECT_EQ(i, 0);
    EXPECT_EQ(ms.farValue, DBL_MAX);
    EXPECT_FALSE(ms.logging);
}

class StreamCapture {
  public:
    StreamCapture() { previous_ = dhc::setOut(&buffer_); }
    ~StreamCapture() { dhc::setOut(previous_); }
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::istringstream in(buffer_.str());
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

  private:
    std::ostringstream buffer_;
    std::ostream* previous_;
};

TEST(FMSCAzimuth, StopsAfterSevenRepeatsOfTheTarget) {
    // One group: every search finds the same mode, the target of 1 is met at once.
    Points pts;
    addTightGroup(pts, 0, 0, 20);
    StreamCapture capture;
    srand(3605118785u);
    FMSC ms(pts.get(), 2, pts.size(), 20, 0.05, 100.0, 1, 0.0, 0.0, 0);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "k = 0, seq = 0, k_nn = 20");
    for (int s = 1; s < 7; ++s) EXPECT_EQ(lines[s], "k = 1, seq = " + std::to_string(s) + ", k_nn = 20");
    EXPECT_EQ(ms.knn, 20);
    EXPECT_TRUE(ms.logging);
}

TEST(FMSCAzimuth, UnreachableTargetShrinksTheNeighbourCount) {
    // One group and a target of 3: five repeats without reaching it trigger
    // knn = ceil(0.95 knn): 20 -> 19, and 19 stays 19, so the run ends at
    // the limit of 500 adjustments after 2500 searches.
    Points pts;
    addTightGroup(pts, 0, 0, 25);
    StreamCapture capture;
    srand(1u);
    FMSC ms(pts.get(), 2, pts.size(), 20, 0.05, 100.0, 3, 0.0, 0.0, 0);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2500u);
    EXPECT_EQ(lines[4], "k = 1, seq = 4, k_nn = 20");
    EXPECT_EQ(lines[5], "k = 0, seq = 0, k_nn = 19");
    EXPECT_EQ(lines[2499], "k = 1, seq = 4, k_nn = 19");
    EXPECT_EQ(ms.knn, 19);
}

std::string writeIni(const std::string& name, const std::string& text) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    const std::string path = std::string(dir != nullptr ? dir : ".") + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

TEST(FMSCIni, ReadsTheMeanShiftSection) {
    const std::string path = writeIni("fmsc_ms.ini",
                                      "[POTTS_MODEL]\nBetaMax=3\n\n[MEANSHIFT]\nAutoAdjustKNN=0\n"
                                      "Tolerance=0.05\nSkipLast=0.1\nKernelType=2\n\n");
    Points pts;
    addTightGroup(pts, 0, 0, 5);
    FMSC ms(pts.get(), 2, pts.size(), 3, 0.05, 100.0, path.c_str());
    EXPECT_EQ(ms.tolerance, 0.05);
    EXPECT_EQ(ms.skipLast, 0.1);
    EXPECT_EQ(ms.kernelType, 2);
    EXPECT_EQ(ms.knn, 3);
    EXPECT_EQ(ms.hMin, 0.05);
    EXPECT_EQ(ms.hMax, 100.0);

    const std::string partial = writeIni("fmsc_partial.ini", "[MEANSHIFT]\nKernelType=1\n\n");
    FMSC defaults(pts.get(), 2, pts.size(), 3, 0.05, 100.0, partial.c_str());
    EXPECT_EQ(defaults.tolerance, 0.0);
    EXPECT_EQ(defaults.skipLast, 0.0);
    EXPECT_EQ(defaults.kernelType, 1);
}

TEST(FMSCIniDeathTest, MissingSectionEndsWithStatusMinusOne) {
    const std::string path = writeIni("fmsc_none.ini", "[POTTS_MODEL]\nBetaMax=3\n\n");
    Points pts;
    addTightGroup(pts, 0, 0, 5);
    EXPECT_EXIT(FMSC(pts.get(), 2, pts.size(), 3, 0.05, 100.0, path.c_str()), ::testing::ExitedWithCode(255),
                "");
}

}  // namespace
