#include "model/ModelFromRun.h"

#include <algorithm>
#include <cmath>

#include "base/InputError.h"
#include "driver/FinalModel.h"
#include "hierarchy/Hierarchy.h"
#include "hierarchy/TreeJson.h"
#include "settings/DHC_SET.h"

namespace dhc {

namespace {

// The covariance, or the nearest of the diagonal loadings above that is
// positive definite.
std::vector<double> positiveDefinite(std::vector<double> s, int d) {
    std::vector<double> lower;
    if (cholesky(s, d, lower)) return s;
    double trace = 0.0;
    for (int i = 0; i < d; ++i) trace += std::fabs(s[static_cast<size_t>(i * d + i)]);
    const double unit = std::max(1.0, trace / d);
    for (double f = 1e-6; f <= 1e6; f *= 10) {
        std::vector<double> t = s;
        for (int i = 0; i < d; ++i) t[static_cast<size_t>(i * d + i)] += f * unit;
        if (cholesky(t, d, lower)) return t;
    }
    return {};
}

// One class of the model: its Gaussian made positive definite.
ModelLeaf leafOf(int label, const std::vector<double>& mean, const std::vector<std::vector<double>>& covariance) {
    ModelLeaf leaf;
    leaf.label = label;
    leaf.mean = mean;
    for (const std::vector<double>& row : covariance) leaf.covariance.insert(leaf.covariance.end(), row.begin(), row.end());
    leaf.covariance = positiveDefinite(leaf.covariance, static_cast<int>(mean.size()));
    if (leaf.covariance.empty())
        throw InputError(kExitInput,
                         "class " + std::to_string(label) + ": its covariance cannot be made positive definite",
                         "dhc:badModel");
    return leaf;
}

}  // namespace

Model modelFromRun(const DHC_OUT& out, const DHC_SET& settings, const ValueConversion& values,
                   const std::string& program, const std::string& version) {
    const Hierarchy tree = Hierarchy::fromRun(out, settings);
    Model m;
    m.program = program;
    m.version = version;
    m.values = values;
    m.bands = tree.root().bands;
    if (const FinalModel* refined = tree.finalModel(); refined != nullptr && refined->refined) {
        // A refined final map is made of the refinement's classes and its
        // beta was estimated on that map.
        for (const FinalClass& c : refined->classes)
            if (!c.mean.empty()) m.leaves.push_back(leafOf(c.label, c.mean, c.covariance));  // empty: emptied
        m.beta = refined->beta;
    } else {
        double weighted = 0.0, area = 0.0;
        for (const RegionNode& n : tree.nodes()) {
            if (n.split && std::isfinite(n.beta)) {
                weighted += n.beta * n.area;
                area += n.area;
            }
            if (!n.terminal) continue;
            if (n.mean.empty() || n.covariance.empty())
                throw InputError(kExitInput, "leaf " + std::to_string(n.label) + " has no statistics to model",
                                 "dhc:badModel");
            m.leaves.push_back(leafOf(n.finalLabel, n.mean, n.covariance));
        }
        // Nothing split: the region's own beta interval gives the only estimate there is.
        m.beta = area > 0 ? weighted / area : settings.betaMin;
    }
    std::sort(m.leaves.begin(), m.leaves.end(), [](const ModelLeaf& a, const ModelLeaf& b) { return a.label < b.label; });
    m.settings = settingsJson(settings);
    m.tree = treeJson(tree, settings, program, version);
    return m;
}

}  // namespace dhc
