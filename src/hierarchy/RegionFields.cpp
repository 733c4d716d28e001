#include "hierarchy/RegionFields.h"

#include "workspace/WSReport.h"

namespace dhc {
namespace {

using Kind = RegionFieldKind;
using Node = RegionNode;

RegionField number(const char* matlab, const char* python, const char* json, Kind kind, double (*get)(const Node&)) {
    return {matlab, python, json, kind, get, nullptr, nullptr, nullptr};
}
RegionField ints(const char* matlab, const char* python, const char* json,
                 const std::vector<int>& (*get)(const Node&)) {
    return {matlab, python, json, Kind::Ints, nullptr, get, nullptr, nullptr};
}

}  // namespace

const std::vector<RegionField>& regionFields() {
    static const std::vector<RegionField> fields = {
        number("label", "label", "label", Kind::Int, [](const Node& n) -> double { return n.label; }),
        number("depth", "depth", "depth", Kind::Int, [](const Node& n) -> double { return n.depth; }),
        ints("path", "path", "path", [](const Node& n) -> const std::vector<int>& { return n.path; }),
        number("nChildren", nullptr, nullptr, Kind::Int,
               [](const Node& n) -> double { return static_cast<double>(n.children.size()); }),
        ints("children", "children", "children", [](const Node& n) -> const std::vector<int>& { return n.children; }),
        number("offspCard", nullptr, nullptr, Kind::Int,
               [](const Node& n) -> double { return static_cast<double>(n.offspring.size()); }),
        ints("offspring", "offspring", "offspring",
             [](const Node& n) -> const std::vector<int>& { return n.offspring; }),
        number("split", "split", "split", Kind::Flag, [](const Node& n) -> double { return n.split; }),
        number("isTerminal", "is_terminal", "terminal", Kind::Flag, [](const Node& n) -> double { return n.terminal; }),
        number("beta", "beta", "beta", Kind::Real, [](const Node& n) { return n.beta; }),
        number("edges", "edges", "edges", Kind::Int, [](const Node& n) -> double { return n.edges; }),
        number("textureBased", "texture_based", "textureBased", Kind::Flag,
               [](const Node& n) -> double { return n.textureBased; }),
        number("sgBasic", "sg_basic", "splitGain.TFR", Kind::Real, [](const Node& n) { return n.splitGainTFR; }),
        number("sgTex", "sg_tex", "splitGain.mixtureTFR", Kind::Real,
               [](const Node& n) { return n.mixtureSplitGainTFR; }),
        number("sgSpec", "sg_spec", "splitGain.MRF", Kind::Real, [](const Node& n) { return n.splitGainMRF; }),
        number("area", "area", "area", Kind::Int, [](const Node& n) -> double { return n.area; }),
        ints("area_k", "child_areas", "childAreas",
             [](const Node& n) -> const std::vector<int>& { return n.childAreas; }),
        number("TlkE", "total_likelihood_energy", "likelihoodEnergy", Kind::Real,
               [](const Node& n) { return n.likelihoodEnergy; }),
        number("bands", "bands", nullptr, Kind::Int, [](const Node& n) -> double { return n.bands; }),
        {"mi", "mean", "mean", Kind::Reals, nullptr, nullptr,
         [](const Node& n) -> const std::vector<double>& { return n.mean; }, nullptr},
        {"sigma", "covariance", "covariance", Kind::Matrix, nullptr, nullptr, nullptr,
         [](const Node& n) -> const std::vector<std::vector<double>>& { return n.covariance; }},
    };
    return fields;
}

RegionNode regionNode(const WSReport& r) {
    RegionNode n;
    n.label = r.WSLab;
    if (r.children != nullptr) n.children.assign(r.children, r.children + r.nChildren);
    if (r.chAreas != nullptr) n.childAreas.assign(r.chAreas, r.chAreas + r.nChildren);
    if (r.path != nullptr) n.path.assign(r.path, r.path + r.pathLength);
    n.depth = r.pathLength;
    n.area = r.area;
    n.split = r.split;
    n.terminal = r.terminal;
    if (r.offspring != nullptr) n.offspring.assign(r.offspring, r.offspring + r.nOffspring);
    n.beta = r.beta;
    n.edges = r.edges;
    n.textureBased = r.textureBased;
    n.splitGainMRF = r.splitGainMRF;
    n.mixtureSplitGainTFR = r.mixtureSplitGainTFR;
    n.splitGainTFR = r.splitGainTFR;
    n.likelihoodEnergy = r.totalLikelihoodEnergy;
    n.criterion = r.criterion;
    n.refused = r.refused;
    n.refusedGain = r.refusedGain;
    n.refusedCriterion = r.refusedCriterion;
    n.bands = r.nBands;
    if (r.mean != nullptr) n.mean.assign(r.mean, r.mean + r.nBands);
    if (r.covariance != nullptr)
        for (int i = 0; i < r.nBands; ++i) n.covariance.emplace_back(r.covariance[i], r.covariance[i] + r.nBands);
    return n;
}

}  // namespace dhc
