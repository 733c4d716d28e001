#include "hierarchy/TreeJson.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "hierarchy/Hierarchy.h"
#include "settings/DHC_SET.h"
#include "settings/SettingsTable.h"

namespace dhc {

namespace {

using json = nlohmann::ordered_json;

// JSON has no NaN or infinity: such a value is written as null.
json number(double v) {
    return std::isfinite(v) ? json(v) : json(nullptr);
}

json numbers(const std::vector<double>& values) {
    json out = json::array();
    for (double v : values) out.push_back(number(v));
    return out;
}

json region(const RegionNode& n) {
    json r;
    r["label"] = n.label;
    r["parent"] = n.parent < 0 ? json(nullptr) : json(n.parent);
    r["children"] = n.children;
    r["childAreas"] = n.childAreas;
    r["depth"] = n.depth;
    r["path"] = n.path;
    r["area"] = n.area;
    r["terminal"] = n.terminal;
    r["split"] = n.split;
    r["splitRank"] = n.splitRank > 0 ? json(n.splitRank) : json(nullptr);
    r["finalLabel"] = n.terminal ? json(n.finalLabel) : json(nullptr);
    r["offspring"] = n.offspring;
    // The split's own figures exist only where the split succeeded.
    if (n.split) {
        r["beta"] = number(n.beta);
        r["edges"] = n.edges;
        r["textureBased"] = n.textureBased;
        r["splitGain"] = {{"MRF", number(n.splitGainMRF)},
                          {"mixtureTFR", number(n.mixtureSplitGainTFR)},
                          {"TFR", number(n.splitGainTFR)}};
    } else {
        r["beta"] = nullptr;
        r["edges"] = nullptr;
        r["textureBased"] = n.textureBased;
        r["splitGain"] = nullptr;
    }
    r["criterion"] = n.split ? number(n.criterion) : json(nullptr);
    r["refusedSplit"] = n.refused ? json{{"gain", number(n.refusedGain)}, {"criterion", number(n.refusedCriterion)}}
                                  : json(nullptr);
    r["likelihoodEnergy"] = number(n.likelihoodEnergy);
    r["mean"] = numbers(n.mean);
    json covariance = json::array();
    for (const std::vector<double>& row : n.covariance) covariance.push_back(numbers(row));
    r["covariance"] = covariance;
    return r;
}

}  // namespace

json settingsJson(const DHC_SET& s) {
    // Every setting under its field's name, in the order the record declares them.
    std::vector<const SettingRow*> rows;
    for (const SettingRow& row : settingsTable()) rows.push_back(&row);
    std::stable_sort(rows.begin(), rows.end(),
                     [](const SettingRow* a, const SettingRow* b) { return a->offset < b->offset; });
    // The class structure: one length per class, and each class's path.
    json levels = json::array(), paths = json::array();
    for (int c = 0, offset = 0; c < s.numberOfClasses && s.structureLevels != nullptr; ++c) {
        levels.push_back(s.structureLevels[c]);
        json path = json::array();
        for (int i = 0; i < s.structureLevels[c] && s.structurePaths != nullptr; ++i)
            path.push_back(s.structurePaths[offset + i]);
        paths.push_back(path);
        offset += s.structureLevels[c];
    }
    json out;
    for (const SettingRow* row : rows) {
        switch (row->kind) {
            case SettingKind::Flag:
                out[row->field] = s.*row->flag;
                break;
            case SettingKind::Int:
                out[row->field] = s.*row->integer;
                break;
            case SettingKind::Double:
                out[row->field] = number(s.*row->real);
                break;
            case SettingKind::IntArray:
                out[row->field] = row->id == Setting::StructureLevels ? levels : paths;
                break;
        }
    }
    return out;
}

json treeJson(const Hierarchy& tree, const DHC_SET& settings, const std::string& program,
              const std::string& version) {
    json doc;
    doc["format"] = "dhc-tree";
    doc["formatVersion"] = kTreeFormatVersion;
    doc["program"] = {{"name", program}, {"version", version}};
    doc["settings"] = settingsJson(settings);
    doc["image"] = {{"rows", tree.rows()}, {"cols", tree.cols()}};
    doc["root"] = tree.root().label;
    doc["splitOrder"] = tree.splitOrder();
    json classes = json::array();
    for (int k = 0; k <= tree.splits(); ++k) classes.push_back(tree.leavesAfter(k));
    doc["cutClasses"] = classes;
    json regions = json::array();
    for (const RegionNode& n : tree.nodes()) regions.push_back(region(n));
    doc["regions"] = regions;
    json model = nullptr;
    if (const FinalModel* m = tree.finalModel()) {
        model = json::object();
        model["refined"] = m->refined;
        model["rounds"] = m->rounds;
        model["beta"] = number(m->beta);
        model["pseudoLikelihood"] = number(m->pseudoLikelihood);
        model["treePseudoLikelihood"] = number(m->treePseudoLikelihood);
        json finals = json::array();
        for (const FinalClass& c : m->classes) {
            json cov = json::array();
            for (const auto& row : c.covariance) cov.push_back(numbers(row));
            finals.push_back({{"label", c.label}, {"area", c.area}, {"mean", numbers(c.mean)}, {"covariance", cov}});
        }
        model["classes"] = finals;
    }
    doc["finalModel"] = model;
    return doc;
}

std::string treeJsonText(const Hierarchy& tree, const DHC_SET& settings, const std::string& program,
                         const std::string& version) {
    return treeJson(tree, settings, program, version).dump(2) + "\n";
}

}  // namespace dhc
