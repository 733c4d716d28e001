#include "settings/ConfigFileParser.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string writeFile(const std::string& name, const std::string& text) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    const std::string path = (dir != nullptr ? std::string(dir) + "/" : ::testing::TempDir()) + "cfp_" +
                             std::to_string(::getpid()) + "_" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

const char* kIni =
    "; comment before any section\n"
    "[FIRST] trailing text is allowed after the bracket\n"
    "Count=42\n"
    "Ratio=2.5\n"
    "Expr=a=b\n"
    "this line has no equals sign\n"
    "Ints={3 -1 7}\n"
    "Doubles={0.5 1e3 -2}\n"
    "Words={alpha beta gamma}\n"
    "Mat={1 2 3;4 5 6}\n"
    "On=2\n"
    "\n"
    "Hidden=1\n"
    "\n"
    "[SECOND]\n"
    "Count=7\n";

TEST(ConfigFileParser, ValuesOfTheCurrentSection) {
    const std::string path = writeFile("main.ini", kIni);
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));
    EXPECT_FALSE(p.eoa());
    EXPECT_EQ(p.seekInt("Count", -5), 42);
    EXPECT_DOUBLE_EQ(p.seekDouble("Ratio", 0.0), 2.5);
    EXPECT_FLOAT_EQ(p.seekFloat("Ratio", 0.0f), 2.5f);
    EXPECT_EQ(p.seekString("Expr", ""), "a=b");  // the key ends at the first '='
    EXPECT_TRUE(p.seekFlag("On"));
    EXPECT_TRUE(p.eoa());  // "On" is the section's last line; eoa does not move
    EXPECT_TRUE(p.eoa());

    int* ints = p.seekIntArray("Ints", 3);
    ASSERT_NE(ints, nullptr);
    EXPECT_EQ(std::vector<int>(ints, ints + 3), (std::vector<int>{3, -1, 7}));
    delete[] ints;
    double* doubles = p.seekDoubleArray("Doubles", 3);
    ASSERT_NE(doubles, nullptr);
    EXPECT_EQ(std::vector<double>(doubles, doubles + 3), (std::vector<double>{0.5, 1000.0, -2.0}));
    delete[] doubles;
    char** words = p.seekStringArray("Words", 3);
    ASSERT_NE(words, nullptr);
    EXPECT_STREQ(words[2], "gamma");
    ConfigFileParser::freeStrings(words, 3);
    int** m = p.seekIntMatrix("Mat", 2, 3);
    ASSERT_NE(m, nullptr);
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(m[r][c], 3 * r + c + 1);
    ConfigFileParser::freeMatrix(m, 2);
    double** dm = p.seekDoubleMatrix("Mat", 2, 3);
    ASSERT_NE(dm, nullptr);
    EXPECT_DOUBLE_EQ(dm[1][2], 6.0);
    ConfigFileParser::freeMatrix(dm, 2);

    ASSERT_TRUE(p.seekArgument("SECOND"));
    EXPECT_EQ(p.seekInt("Count", -5), 7);
    std::remove(path.c_str());
}

TEST(ConfigFileParser, AbsentKeysAndSectionsGiveDefaults) {
    const std::string path = writeFile("absent.ini", kIni);
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));
    EXPECT_EQ(p.seekInt("Missing", 9), 9);
    EXPECT_FALSE(p.seekFlag("Missing"));
    EXPECT_EQ(p.seekString("Missing", "def"), "def");
    EXPECT_EQ(p.seekPar("Missing"), nullptr);
    EXPECT_EQ(p.seekInt("Coun", 0), 0);    // keys compare whole,
    EXPECT_EQ(p.seekInt("Hidden", 0), 0);  // and the first empty line ends the section
    EXPECT_EQ(p.seekIntArray("Missing", 3), nullptr);
    EXPECT_EQ(p.seekDoubleArray("Missing", 3), nullptr);
    EXPECT_EQ(p.seekIntMatrix("Missing", 2, 2), nullptr);
    ASSERT_TRUE(p.seekArgument("SECOND"));
    EXPECT_EQ(p.seekInt("Ratio", 0), 0);  // FIRST's keys are not visible
    // A missing section after one was found: defaults, and the process goes on.
    EXPECT_FALSE(p.seekArgument("NO_SUCH_SECTION"));
    EXPECT_EQ(p.seekInt("Count", 3), 3);
    EXPECT_EQ(p.seekIntArray("Ints", 3), nullptr);
    std::remove(path.c_str());
}

TEST(ConfigFileParser, CrlfFilesReadLikeLfFiles) {
    const std::string path = writeFile(
        "crlf.ini", "[A]\r\nInt=12\r\nText=abc\r\nArr={1 2 3}\r\n\r\nOutside=5\r\n\r\n[B]\r\nInt=8\r\n");
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("A"));
    char* raw = p.seekPar("Text");
    ASSERT_NE(raw, nullptr);
    EXPECT_STREQ(raw, "abc");
    raw[1023] = 'x';  // a 1024-byte buffer
    delete[] raw;
    EXPECT_EQ(p.seekInt("Int", 0), 12);
    int* arr = p.seekIntArray("Arr", 3);
    ASSERT_NE(arr, nullptr);
    EXPECT_EQ(arr[2], 3);
    delete[] arr;
    EXPECT_EQ(p.seekInt("Outside", 0), 0);  // "\r\n" closes the section as "\n" does
    ASSERT_TRUE(p.seekArgument("B"));
    EXPECT_EQ(p.seekInt("Int", 0), 8);
    std::remove(path.c_str());
}

TEST(ConfigFileParserDeath, LookupBeforeAnySectionEndsWithMinusOne) {
    const std::string path = writeFile("nosection.ini", "[REAL]\nKey=1\n");
    EXPECT_EXIT({ ConfigFileParser(path).seekInt("Key", 0); }, ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT({ ConfigFileParser(path).seekIntArray("Key", 1); }, ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(
        {
            ConfigFileParser p(path);
            p.seekArgument("MISSING");  // a failed search does not count
            p.seekFlag("Key");
        },
        ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(
        {
            ConfigFileParser p(path + ".absent");
            p.seekArgument("REAL");
            p.seekPar("Key");
        },
        ::testing::ExitedWithCode(255), "");
    std::remove(path.c_str());
}

TEST(ConfigFileParser, CheckedQueriesNeverEndTheProcess) {
    const std::string path = writeFile(
        "checked.ini",
        "[S]\nGood= 12 \nBad=12abc\nReal=0.25\nHuge=99999999999\nArr={1 2 3}\nJunk={1 x 3}\nOpen={1 2 3\n");
    ConfigFileParser p(path);
    std::string v;
    EXPECT_FALSE(p.findValue("Good", v));  // fatal through the seek* operations
    EXPECT_FALSE(p.hasKey("Good"));
    ASSERT_TRUE(p.seekArgument("S"));
    EXPECT_TRUE(p.hasKey("Good"));
    int i = -1;
    EXPECT_TRUE(p.checkedInt("Good", i));
    EXPECT_EQ(i, 12);
    for (const char* bad : {"Bad", "Huge", "Real", "Nope"}) EXPECT_FALSE(p.checkedInt(bad, i)) << bad;
    EXPECT_EQ(p.seekInt("Bad", 0), 12);  // the plain reader keeps strtol's reading
    double d = 0.0;
    EXPECT_TRUE(p.checkedDouble("Real", d));
    EXPECT_DOUBLE_EQ(d, 0.25);
    EXPECT_FALSE(p.checkedDouble("Bad", d));
    std::vector<int> a;
    EXPECT_TRUE(p.checkedIntArray("Arr", 3, a));
    EXPECT_EQ(a, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(p.checkedIntArray("Arr", 4, a));
    EXPECT_FALSE(p.checkedIntArray("Junk", 3, a));
    EXPECT_FALSE(p.checkedIntArray("Open", 3, a));
    EXPECT_FALSE(p.checkedIntArray("Good", 1, a));
    std::remove(path.c_str());
}

}  // namespace
