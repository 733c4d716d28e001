#include "data/LabelController.h"

#include <gtest/gtest.h>

#include <vector>

TEST(LabelController, HandsOutLowestFreeLabelsAndEndsWhenExhausted) {
    LabelController lc(3);
    EXPECT_EQ(lc.pick(), 1);
    EXPECT_EQ(lc.pick(), 2);
    EXPECT_EQ(lc.pick(), 3);
    EXPECT_EQ(lc.usedCount, 4);
    EXPECT_EQ(lc.maxUsed, 3);
    EXPECT_EXIT(lc.pick(), ::testing::ExitedWithCode(255), "Etichette non disponibili");
}

TEST(LabelController, ReleasedLabelIsReusedAndMaxUsedFollowsReleases) {
    LabelController lc(10);
    lc.pick();
    lc.pick();
    lc.pick();
    lc.release(2);
    EXPECT_EQ(lc.firstFree, 2);
    EXPECT_EQ(lc.maxUsed, 3);
    EXPECT_EQ(lc.pick(), 2);
    EXPECT_EQ(lc.firstFree, 4);  // scan from 3 finds 4 free
    lc.release(2);
    lc.release(3);  // 3 not below firstFree (2): scan down past free 2 to 1
    EXPECT_EQ(lc.maxUsed, 1);
    EXPECT_EQ(lc.usedCount, 2);
    EXPECT_EQ(lc.pick(), 2);
    EXPECT_EQ(lc.pick(), 3);
}

TEST(LabelController, ReleasingBelowFirstFreeLowersMaxUsedAtOnce) {
    LabelController lc(10);
    for (int i = 0; i < 4; ++i) lc.pick();  // 1..4, firstFree 5
    lc.release(4);                          // 4 < 5: maxUsed = 3 without scanning
    EXPECT_EQ(lc.maxUsed, 3);
    EXPECT_EQ(lc.firstFree, 4);
    lc.release(2);
    lc.release(3);  // 3 >= firstFree 2: scan down, 2 is free, 1 taken
    EXPECT_EQ(lc.maxUsed, 1);
}

TEST(LabelController, FirstFreeBecomesCapacityPlusOneWhenNothingAboveIsFree) {
    LabelController lc(3);
    lc.pick();
    lc.pick();
    lc.pick();
    lc.release(1);
    EXPECT_EQ(lc.pick(), 1);  // l != maxUsed + 1: scan 2..3 finds nothing
    EXPECT_EQ(lc.firstFree, 4);
    EXPECT_EXIT(lc.pick(), ::testing::ExitedWithCode(255), "Etichette non disponibili");
}

TEST(LabelController, ReservedLabelIsCountedButNotMarked) {
    LabelController lc(10);
    EXPECT_EQ(lc.pick(5), 5);
    EXPECT_EQ(lc.usedCount, 2);
    EXPECT_EQ(lc.maxUsed, 5);
    EXPECT_EQ(lc.used[5], 0);
    EXPECT_EQ(lc.pick(1), 1);
    EXPECT_EQ(lc.firstFree, 2);  // firstFree was 1 == l
    // A reserved label can be handed out again, and giving it back is fatal.
    EXPECT_EQ(lc.pick(), 2);
    EXPECT_EQ(lc.pick(), 3);
    EXPECT_EQ(lc.pick(), 4);
    EXPECT_EQ(lc.pick(), 5);  // not marked, so picked again
    EXPECT_EXIT(lc.release(1), ::testing::ExitedWithCode(255),
                "L'etichetta da rilasciare e' libera o fuori range");
}

TEST(LabelController, PickMultipleAndReleaseAll) {
    LabelController lc(6);
    lc.pick();
    lc.pick();
    lc.release(1);
    int* labels = lc.pickMultiple(3);
    EXPECT_EQ(std::vector<int>(labels, labels + 3), (std::vector<int>{1, 3, 4}));
    delete[] labels;
    lc.releaseAll();
    EXPECT_EQ(lc.firstFree, 1);
    EXPECT_EQ(lc.maxUsed, 0);
    EXPECT_EQ(lc.usedCount, 1);
    EXPECT_EQ(lc.used[0], 1);
    for (int l = 1; l <= 6; ++l) EXPECT_EQ(lc.used[l], 0);
    EXPECT_EQ(lc.pick(), 1);
}

TEST(LabelController, MisuseEndsTheProcessWithItsMessage) {
    LabelController lc(4);
    EXPECT_EXIT(lc.pick(0), ::testing::ExitedWithCode(255), "Etichetta occupata o fuori range");
    EXPECT_EXIT(lc.pick(5), ::testing::ExitedWithCode(255), "Etichetta occupata o fuori range");
    lc.pick();
    EXPECT_EXIT(lc.pick(1), ::testing::ExitedWithCode(255), "Etichetta occupata o fuori range");
    EXPECT_EXIT(lc.release(3), ::testing::ExitedWithCode(255),
                "L'etichetta da rilasciare e' libera o fuori range");
    EXPECT_EXIT(lc.release(5), ::testing::ExitedWithCode(255),
                "L'etichetta da rilasciare e' libera o fuori range");
    EXPECT_EXIT(lc.release(0), ::testing::ExitedWithCode(255),
                "L'etichetta da rilasciare e' libera o fuori range");
}
