// The model as data: JSON round trips to the same bits, and every malformed
// model is refused with a message naming its problem.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "base/InputError.h"
#include "model/Model.h"

namespace dhc {
namespace {

using json = nlohmann::ordered_json;

// Two leaves of two bands with numbers whose shortest decimal forms are long.
Model twoLeaves() {
    Model m;
    m.bands = 2;
    m.beta = 0.1 + 0.2;
    m.version = "test";
    m.leaves.push_back({7, {1.0 / 3.0, 2.0 / 7.0}, {2.0 / 3.0, 1e-3 / 7.0, 1e-3 / 7.0, 5.0}});
    m.leaves.push_back({2, {-1e-300, 123456789.123456789}, {4.9e-2, 0.0, 0.0, std::nextafter(1.0, 2.0)}});
    m.values.floatBands = true;
    m.values.scale = 1000;
    m.values.hasNodata = true;
    m.values.nodata = -9999.5;
    m.settings = {{"betaMax", 1.5}};
    m.tree = {{"format", "dhc-tree"}};
    return m;
}

bool sameBits(double a, double b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(ModelJson, RoundTripKeepsEveryBitAndTheText) {
    const Model m = twoLeaves();
    const std::string text = modelJsonText(m);
    const Model back = parseModel(text, "model");
    EXPECT_EQ(modelJsonText(back), text);
    ASSERT_EQ(back.leaves.size(), 2u);
    // Read back in ascending label order.
    EXPECT_EQ(back.leaves[0].label, 2);
    EXPECT_EQ(back.leaves[1].label, 7);
    EXPECT_TRUE(sameBits(back.beta, m.beta));
    for (int i = 0; i < 2; ++i) {
        const ModelLeaf& a = m.leaves[static_cast<size_t>(1 - i)];
        const ModelLeaf& b = back.leaves[static_cast<size_t>(i)];
        for (size_t k = 0; k < 2; ++k) EXPECT_TRUE(sameBits(a.mean[k], b.mean[k])) << a.mean[k];
        for (size_t k = 0; k < 4; ++k) EXPECT_TRUE(sameBits(a.covariance[k], b.covariance[k]));
    }
    EXPECT_TRUE(back.values.floatBands);
    EXPECT_EQ(back.values.scale, 1000);
    EXPECT_TRUE(back.values.hasNodata);
    EXPECT_EQ(back.values.nodata, -9999.5);
    EXPECT_EQ(back.tree["format"], "dhc-tree");
}

TEST(ModelJson, IntegerModelWritesNullScaleAndNodata) {
    Model m = twoLeaves();
    m.values = ValueConversion();
    const json doc = json::parse(modelJsonText(m));
    EXPECT_TRUE(doc["values"]["scale"].is_null());
    EXPECT_TRUE(doc["values"]["nodata"].is_null());
    EXPECT_EQ(doc["labelling"]["radius"], kLabelRadius);
    EXPECT_FALSE(parseModel(doc.dump(), "m").values.floatBands);
}

// The message of parseModel on the document changed by edit; "" when accepted.
template <typename Edit>
std::string refusal(Edit edit) {
    json doc = json::parse(modelJsonText(twoLeaves()));
    edit(doc);
    try {
        parseModel(doc.dump(), "model \"m.json\"");
    } catch (const InputError& e) {
        EXPECT_EQ(e.status(), kExitInput);
        EXPECT_EQ(e.id(), "dhc:badModel");
        EXPECT_EQ(std::string(e.what()).rfind("model \"m.json\": ", 0), 0u) << e.what();
        return e.what();
    }
    return "";
}

TEST(ModelJson, RefusesEveryMalformedModel) {
    auto has = [](const std::string& message, const std::string& part) {
        return message.find(part) != std::string::npos;
    };
    EXPECT_EQ(refusal([](json&) {}), "");
    EXPECT_TRUE(has(refusal([](json& d) { d["format"] = "dhc-tree"; }), "not a dhc model"));
    EXPECT_TRUE(has(refusal([](json& d) { d["formatVersion"] = 2; }), "newer than this dhc reads"));
    EXPECT_TRUE(has(refusal([](json& d) { d["formatVersion"] = 0; }), "formatVersion"));
    EXPECT_TRUE(has(refusal([](json& d) { d.erase("beta"); }), "missing field \"beta\""));
    EXPECT_TRUE(has(refusal([](json& d) { d["beta"] = nullptr; }), "\"beta\" must be a number"));
    EXPECT_TRUE(has(refusal([](json& d) { d["bands"] = 0; }), "\"bands\""));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][0]["mean"][1] = nullptr; }), "leaves[0].mean[1]"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][0]["mean"].push_back(1.0); }), "array of 2 numbers"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][1]["covariance"].erase(1); }), "2 rows of 2"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][1]["label"] = d["leaves"][0]["label"]; }),
                    "more than one leaf"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][0]["label"] = 0; }), "label"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"] = json::array(); }), "non-empty"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][0]["covariance"][0][1] = 1.0; }), "not symmetric"));
    // Singular, and indefinite.
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][0]["covariance"] = {{1.0, 1.0}, {1.0, 1.0}}; }),
                    "not positive definite"));
    EXPECT_TRUE(has(refusal([](json& d) { d["leaves"][0]["covariance"] = {{1.0, 2.0}, {2.0, 1.0}}; }),
                    "not positive definite"));
    EXPECT_TRUE(has(refusal([](json& d) { d["values"]["scale"] = -1.0; }), "positive"));
    EXPECT_TRUE(has(refusal([](json& d) { d["values"]["floatBands"] = "yes"; }), "true or false"));
    EXPECT_TRUE(has(refusal([](json& d) { d["labelling"]["sweeps"] = 99; }), "labelling"));
    EXPECT_TRUE(has(refusal([](json& d) { d["settings"] = 3; }), "settings"));
}

TEST(ModelJson, RefusesTextThatIsNotAModel) {
    for (const std::string text : {"", "{", "[1, 2]", "{\"format\": \"dhc-model\"}"})
        EXPECT_THROW(parseModel(text, "m"), InputError) << text;
    // Too large for a double (never read as infinity), and NaN, which has no
    // JSON form, in place of beta's value.
    const std::string good = modelJsonText(twoLeaves());
    const size_t at = good.find("\"beta\": ") + 8, end = good.find(',', at);
    for (const std::string value : {"1e400", "-1e999", "NaN", "Infinity"}) {
        std::string text = good;
        text.replace(at, end - at, value);
        EXPECT_THROW(parseModel(text, "m"), InputError) << value;
    }
}

TEST(ModelFile, MissingFileNamesIt) {
    try {
        readModelFile("/nonexistent/m.json");
        FAIL();
    } catch (const InputError& e) {
        EXPECT_NE(std::string(e.what()).find("cannot open model \"/nonexistent/m.json\""), std::string::npos);
    }
}

TEST(Cholesky, FactorsAndRefuses) {
    std::vector<double> lower;
    ASSERT_TRUE(cholesky({4, 2, 2, 5}, 2, lower));
    EXPECT_DOUBLE_EQ(lower[0], 2);
    EXPECT_DOUBLE_EQ(lower[2], 1);
    EXPECT_DOUBLE_EQ(lower[3], 2);
    EXPECT_DOUBLE_EQ(lower[1], 0);
    EXPECT_FALSE(cholesky({0, 0, 0, 1}, 2, lower));
    EXPECT_FALSE(cholesky({-1}, 1, lower));
}

}  // namespace
}  // namespace dhc
