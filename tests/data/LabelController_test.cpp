#include "data/LabelController.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(LabelController, PickAndReleaseSequences) {
    LabelController lc(10);
    for (int want : {1, 2, 3}) EXPECT_EQ(lc.pick(), want);
    lc.release(2);
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
    lc.release(1);
    int* labels = lc.pickMultiple(3);
    EXPECT_EQ(std::vector<int>(labels, labels + 3), (std::vector<int>{1, 4, 5}));
    delete[] labels;
}

TEST(LabelController, MisuseAndExhaustionEndTheProcessWithTheirMessages) {
    LabelController lc(3);
    for (int want : {1, 2, 3}) EXPECT_EQ(lc.pick(), want);
    lc.release(1);
    EXPECT_EQ(lc.pick(), 1);  // not maxUsed + 1: the scan over 2..3 finds nothing free
    EXPECT_EXIT(lc.pick(), ::testing::ExitedWithCode(255), "Etichette non disponibili");
    EXPECT_EXIT(lc.pick(0), ::testing::ExitedWithCode(255), "Etichetta occupata o fuori range");
    EXPECT_EXIT(lc.pick(4), ::testing::ExitedWithCode(255), "Etichetta occupata o fuori range");
    lc.release(2);
    EXPECT_EXIT(lc.release(2), ::testing::ExitedWithCode(255),
                "L'etichetta da rilasciare e' libera o fuori range");
}

}  // namespace
