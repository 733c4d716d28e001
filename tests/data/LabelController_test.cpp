#include "data/LabelController.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

namespace {

const char* kExhausted = "Etichette non disponibili";
const char* kTaken = "Etichetta occupata o fuori range";
const char* kFree = "L'etichetta da rilasciare e' libera o fuori range";

TEST(LabelController, PickAndReleaseSequences) {
    LabelController lc(10);
    for (int want : {1, 2, 3}) EXPECT_EQ(lc.pick(), want);
    lc.release(2);
    EXPECT_EQ(lc.firstFree, 2);
    EXPECT_EQ(lc.maxUsed, 3);
    EXPECT_EQ(lc.pick(), 2);
    EXPECT_EQ(lc.firstFree, 4);  // the scan from 3 finds 4 free
    lc.release(2);
    lc.release(3);  // 3 is not below firstFree (2): scan down past the free 2 to 1
    EXPECT_EQ(lc.maxUsed, 1);
    EXPECT_EQ(lc.usedCount, 2);
    for (int want : {2, 3, 4}) EXPECT_EQ(lc.pick(), want);
    lc.release(4);  // 4 < firstFree 5: maxUsed = 3 without scanning
    EXPECT_EQ(lc.maxUsed, 3);
    EXPECT_EQ(lc.firstFree, 4);

    lc.releaseAll();
    EXPECT_EQ(lc.firstFree, 1);
    EXPECT_EQ(lc.maxUsed, 0);
    EXPECT_EQ(lc.usedCount, 1);
    EXPECT_EQ(lc.used[0], 1);
    lc.pick();
    lc.pick();
    lc.release(1);
    int* labels = lc.pickMultiple(3);
    EXPECT_EQ(std::vector<int>(labels, labels + 3), (std::vector<int>{1, 3, 4}));
    delete[] labels;
}

TEST(LabelController, ExhaustionEndsTheProcess) {
    LabelController lc(3);
    for (int want : {1, 2, 3}) EXPECT_EQ(lc.pick(), want);
    lc.release(1);
    EXPECT_EQ(lc.pick(), 1);  // not maxUsed + 1: the scan over 2..3 finds nothing
    EXPECT_EQ(lc.firstFree, 4);
    EXPECT_EXIT(lc.pick(), ::testing::ExitedWithCode(255), kExhausted);
}

TEST(LabelController, ReservedLabelIsCountedButNotMarked) {
    LabelController lc(10);
    EXPECT_EQ(lc.pick(5), 5);
    EXPECT_EQ(lc.usedCount, 2);
    EXPECT_EQ(lc.maxUsed, 5);
    EXPECT_EQ(lc.pick(1), 1);
    EXPECT_EQ(lc.firstFree, 2);  // firstFree was 1 == l
    // So 5 is handed out again, and giving 1 back is fatal.
    for (int want : {2, 3, 4, 5}) EXPECT_EQ(lc.pick(), want);
    EXPECT_EXIT(lc.release(1), ::testing::ExitedWithCode(255), kFree);
}

TEST(LabelController, MisuseEndsTheProcessWithItsMessage) {
    LabelController lc(4);
    lc.pick();
    const std::pair<std::function<void()>, const char*> misuse[] = {
        {[&] { lc.pick(0); }, kTaken},   {[&] { lc.pick(5); }, kTaken},   {[&] { lc.pick(1); }, kTaken},
        {[&] { lc.release(3); }, kFree}, {[&] { lc.release(5); }, kFree}, {[&] { lc.release(0); }, kFree}};
    for (const auto& [call, message] : misuse) EXPECT_EXIT(call(), ::testing::ExitedWithCode(255), message);
}

}  // namespace
