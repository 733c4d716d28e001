// The report page's parts: the false-colour picture (scale, stretch, nodata),
// the default bands, base64, and the page's inline data.

#include "hierarchy/HtmlReport.h"

#include <gtest/gtest.h>

#include "hierarchy/Hierarchy.h"
#include "hierarchy/HierarchyRuns.h"

namespace {

using namespace hierarchy_test;

TEST(HtmlReport, PicturesShrinkToAtMostTheReportSide) {
    EXPECT_EQ(dhc::reportStep(30, 30), 1);
    EXPECT_EQ(dhc::reportStep(1024, 7), 1);
    EXPECT_EQ(dhc::reportStep(1025, 7), 2);
    EXPECT_EQ(dhc::reportStep(10, 4096), 4);
    EXPECT_EQ(dhc::reportStep(4097, 4096), 5);
}

TEST(HtmlReport, DefaultBandsFollowTheWavelengthOrder) {
    EXPECT_EQ(dhc::defaultRgbBands(6), (std::array<int, 3>{3, 2, 1}));
    EXPECT_EQ(dhc::defaultRgbBands(4), (std::array<int, 3>{3, 2, 1}));
    EXPECT_EQ(dhc::defaultRgbBands(3), (std::array<int, 3>{2, 1, 0}));
    EXPECT_EQ(dhc::defaultRgbBands(1), (std::array<int, 3>{0, 0, 0}));
}

TEST(HtmlReport, FalseColourStretchesEachBandAndBlacksOutNodata) {
    // 2 bands, 2 x 1100: band 0 rises along the columns, band 1 is constant
    // but for one column; the picture keeps one column in two.
    dhc::ImageView view;
    view.bands = 2;
    view.rows = 2;
    view.cols = 1100;
    view.value = [](int b, int, int c) { return b == 0 ? 10 * c : (c == 500 ? 99 : 7); };
    std::vector<uint8_t> valid(2 * 1100, 1);
    valid[0] = valid[1] = valid[1100] = valid[1101] = 0;  // the first block of two columns
    view.valid = &valid;
    const dhc::RgbImage p = dhc::falseColour(view, {0, 1, 0});
    ASSERT_EQ(p.width(), 550);
    ASSERT_EQ(p.height(), 1);
    EXPECT_EQ(p.at(0, 0), (Rgb{0, 0, 0}));  // nodata
    // Band 0 is stretched from its 2nd to its 98th percentile: both ends clip.
    EXPECT_EQ(p.at(1, 0).r, 0);
    EXPECT_EQ(p.at(549, 0).r, 255);
    EXPECT_EQ(p.at(549, 0).b, 255);
    for (int x = 2; x < 549; ++x) EXPECT_GE(p.at(x, 0).r, p.at(x - 1, 0).r);
    const int middle = p.at(275, 0).r;
    EXPECT_NEAR(middle, 128, 3);
    // Band 1: one value almost everywhere, so it is the bottom of its range.
    EXPECT_EQ(p.at(100, 0).g, 0);
}

TEST(HtmlReport, Base64OfTheStandardVectors) {
    EXPECT_EQ(dhc::base64(""), "");
    EXPECT_EQ(dhc::base64("f"), "Zg==");
    EXPECT_EQ(dhc::base64("fo"), "Zm8=");
    EXPECT_EQ(dhc::base64("foo"), "Zm9v");
    EXPECT_EQ(dhc::base64("foob"), "Zm9vYg==");
    EXPECT_EQ(dhc::base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(dhc::base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(dhc::base64(std::string("\xff\xfe\x00", 3)), "//4A");
}

TEST(HtmlReport, PageHoldsTheRunAndRefusesAPictureOfAnotherSize) {
    Scene scene = sixBlocks();
    std::unique_ptr<DHC_SET> s = gainSettings(2, 5);
    SceneRun r = run(scene, *s);
    const dhc::Hierarchy h = dhc::Hierarchy::fromRun(r.out, *s);
    dhc::ReportRun info;
    info.title = "six <blocks>";
    info.bands = 2;
    info.settings = {{"maxNumberOfClasses", 5}};
    info.stoppingReason = "no leaf gains </script> enough";
    info.timings = {{"segmentation", 0.25}};
    const std::string page = dhc::htmlReport(h, dhc::RgbImage(30, 30, Rgb{1, 2, 3}), info);
    EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_NE(page.find("<title>dhc: six &lt;blocks&gt;</title>"), std::string::npos);
    const std::string open = "id=\"run-data\">";
    const size_t from = page.find(open) + open.size(), to = page.find("</script>", from);
    const nlohmann::json data = nlohmann::json::parse(page.substr(from, to - from));
    EXPECT_EQ(data["stoppingReason"], "no leaf gains </script> enough");
    EXPECT_EQ(data["timings"], nlohmann::json::parse(R"([["segmentation", 0.25]])"));
    EXPECT_EQ(data["leaves"].size(), static_cast<size_t>(h.leavesAfter(h.splits())));
    EXPECT_EQ(data["nodes"].size(), h.nodes().size());
    for (int k = 0; k <= h.splits(); ++k) EXPECT_EQ(data["cutClasses"][k], h.leavesAfter(k));
    EXPECT_GE(data["palette"].size(), data["leaves"].size());

    EXPECT_THROW(dhc::htmlReport(h, dhc::RgbImage(29, 30, Rgb{0, 0, 0}), info), dhc::WriteError);
}

}  // namespace
