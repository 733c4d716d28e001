// The tree as JSON: valid against the committed schema, areas that add up,
// links that agree both ways, the class counts of the cuts and the settings.

#include "hierarchy/TreeJson.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "common/JsonSchemaCheck.h"
#include "common/TestSupport.h"
#include "hierarchy/Hierarchy.h"
#include "hierarchy/HierarchyRuns.h"

namespace {

using namespace hierarchy_test;
using nlohmann::json;

dhc::test::JsonSchemaCheck schema() {
    return dhc::test::JsonSchemaCheck(
        json::parse(dhc::test::readFile(DHC_SOURCE_DIR "/docs/tree.schema.json")));
}

// The document of a run, read back from its text.
json document(const dhc::Hierarchy& h, const DHC_SET& s) {
    return json::parse(dhc::treeJsonText(h, s, "dhc", "9.8.7"));
}

// What every document must satisfy beyond its schema.
void expectConsistentTree(const json& doc, const dhc::Hierarchy& h) {
    std::map<int, json> byLabel;
    for (const json& r : doc["regions"]) byLabel[r["label"].get<int>()] = r;
    ASSERT_EQ(byLabel.size(), doc["regions"].size()) << "labels are unique";
    const json& root = byLabel.at(doc["root"].get<int>());
    EXPECT_TRUE(root["parent"].is_null());
    EXPECT_EQ(doc["regions"][0], root);
    std::set<int> leaves;
    for (const auto& [label, r] : byLabel) {
        SCOPED_TRACE("region " + std::to_string(label));
        if (r["terminal"].get<bool>()) leaves.insert(label);
        const json& children = r["children"];
        ASSERT_EQ(children.size(), r["childAreas"].size());
        EXPECT_EQ(r["terminal"].get<bool>(), children.empty());
        int sum = 0;
        for (size_t i = 0; i < children.size(); ++i) {
            const json& child = byLabel.at(children[i].get<int>());
            EXPECT_EQ(child["parent"], label);
            EXPECT_EQ(child["area"], r["childAreas"][i]);
            EXPECT_EQ(child["depth"].get<int>(), r["depth"].get<int>() + 1);
            json path = r["path"];
            path.push_back(i);
            EXPECT_EQ(child["path"], path);
            sum += r["childAreas"][i].get<int>();
        }
        if (!children.empty()) {
            EXPECT_EQ(sum, r["area"].get<int>()) << "children's areas add up";
        }
        EXPECT_EQ(r["splitGain"].is_null(), !r["split"].get<bool>());
        EXPECT_EQ(r["finalLabel"].is_null(), !r["terminal"].get<bool>());
    }
    EXPECT_EQ(root["area"].get<int>(), h.root().area);
    std::set<int> offspring(root["offspring"].begin(), root["offspring"].end());
    if (!root["terminal"].get<bool>()) {
        EXPECT_EQ(offspring, leaves);
    }
    // Ranks follow splitOrder, a parent before its children.
    const json& order = doc["splitOrder"];
    for (size_t i = 0; i < order.size(); ++i) {
        const json& r = byLabel.at(order[i].get<int>());
        EXPECT_EQ(r["splitRank"], i + 1);
        if (!r["parent"].is_null()) {
            EXPECT_LT(byLabel.at(r["parent"].get<int>())["splitRank"].get<int>(), static_cast<int>(i + 1));
        }
    }
    // cutClasses: the distinct labels of each cut.
    ASSERT_EQ(doc["cutClasses"].size(), order.size() + 1);
    for (size_t k = 0; k <= order.size(); ++k) {
        std::set<int> labels;
        for (int v : h.cut(static_cast<int>(k)))
            if (v != 0) labels.insert(v);
        EXPECT_EQ(doc["cutClasses"][k], labels.size()) << "cut " << k;
    }
}

TEST(TreeJson, GainDrivenRunMatchesTheSchemaAndAddsUp) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 6);
    SceneRun r = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
    const json doc = document(h, *s);
    const std::vector<std::string> problems = schema().problems(doc);
    EXPECT_TRUE(problems.empty()) << problems.front();
    expectConsistentTree(doc, h);
    EXPECT_EQ(doc["program"]["version"], "9.8.7");
    EXPECT_EQ(doc["settings"]["multiplicity"], 2);
    EXPECT_EQ(doc["settings"]["maxNumberOfClasses"], 6);
    EXPECT_EQ(doc["image"]["rows"], 30);
    EXPECT_EQ(doc["regions"].size(), 11u);  // five binary splits
    // Each leaf's mean is the mean of its block: two bands.
    for (const json& region : doc["regions"]) {
        EXPECT_EQ(region["mean"].size(), 2u);
        EXPECT_EQ(region["covariance"].size(), 2u);
    }
}

TEST(TreeJson, SupervisedRunNamesTheGroundTruthOfEachLeaf) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 6);
    s->supervisedMode = true;
    s->numberOfClasses = 3;
    // Classes 1..3 are the top row; the bottom row is left unlabelled here.
    for (int r = 15; r < 30; ++r)
        for (int c = 0; c < 30; ++c) scene.mask[r][c] = 0;
    s->structureLevels = new int[3]{1, 2, 2};
    s->structurePaths = new int[5]{0, 1, 0, 1, 1};
    SceneRun r = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
    const json doc = document(h, *s);
    const std::vector<std::string> problems = schema().problems(doc);
    EXPECT_TRUE(problems.empty()) << problems.front();
    expectConsistentTree(doc, h);
    EXPECT_EQ(doc["settings"]["structurePaths"], json::parse("[[0],[1,0],[1,1]]"));
    std::set<int> finals;
    for (const json& region : doc["regions"])
        if (region["terminal"].get<bool>()) finals.insert(region["finalLabel"].get<int>());
    EXPECT_EQ(finals, (std::set<int>{1, 2, 3}));
}

TEST(TreeJson, TheSchemaCheckerFindsWhatIsWrong) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 3);
    SceneRun r = run(scene, *s);
    const json doc = document(dhc::Hierarchy::fromRun(r.out, *s), *s);
    const dhc::test::JsonSchemaCheck check = schema();
    json missing = doc, wrongType = doc, extra = doc, negative = doc;
    missing["regions"][1].erase("area");
    wrongType["regions"][0]["children"][0] = "3";
    extra["settings"]["colour"] = "red";
    negative["regions"][2]["area"] = -1;
    EXPECT_EQ(check.problems(missing), std::vector<std::string>{"/regions/1: missing area"});
    EXPECT_EQ(check.problems(wrongType),
              std::vector<std::string>{"/regions/0/children/0: expected type \"integer\", found string"});
    EXPECT_EQ(check.problems(extra), std::vector<std::string>{"/settings: unexpected member colour"});
    EXPECT_EQ(check.problems(negative),
              std::vector<std::string>{"/regions/2/area: -1 is below the minimum 0"});
}

}  // namespace
