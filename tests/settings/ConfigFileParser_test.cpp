#include "settings/ConfigFileParser.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string tempPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    std::string base = dir != nullptr ? std::string(dir) + "/" : ::testing::TempDir();
    return base + "cfp_" + std::to_string(::getpid()) + "_" + name;
}

std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = tempPath(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

const char* kIni =
    "; settings used by the parser tests\n"
    "[FIRST] trailing text is allowed after the bracket\n"
    "Count=42\n"
    "Ratio=2.5\n"
    "Name=hello world\n"
    "Expr=a=b\n"
    "this line has no equals sign\n"
    "Ints={3 -1 7}\n"
    "Doubles={0.5 1e3 -2}\n"
    "Words={alpha beta gamma}\n"
    "Mat={1 2 3;4 5 6}\n"
    "DMat={0.5 1.5;2.5 3.5}\n"
    "On=2\n"
    "Off=0\n"
    "\n"
    "Hidden=1\n"
    "\n"
    "[SECOND]\n"
    "Count=7\n";

class ParserFile : public ::testing::Test {
protected:
    void SetUp() override { path = writeFile("main.ini", kIni); }
    void TearDown() override { std::remove(path.c_str()); }
    std::string path;
};

TEST_F(ParserFile, ScalarValuesOfTheCurrentSection) {
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));
    EXPECT_EQ(p.seekInt("Count", -5), 42);
    EXPECT_DOUBLE_EQ(p.seekDouble("Ratio", 0.0), 2.5);
    EXPECT_FLOAT_EQ(p.seekFloat("Ratio", 0.0f), 2.5f);
    EXPECT_EQ(p.seekString("Name", "x"), "hello world");
    // The key is the text before the first '='; the rest is the value.
    EXPECT_EQ(p.seekString("Expr", ""), "a=b");
    EXPECT_TRUE(p.seekFlag("On"));
    EXPECT_FALSE(p.seekFlag("Off"));

    ASSERT_TRUE(p.seekArgument("SECOND"));
    EXPECT_EQ(p.seekInt("Count", -5), 7);
}

TEST_F(ParserFile, SeekParReturnsA1024ByteStringOrNull) {
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));
    char* v = p.seekPar("Name");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "hello world");
    v[1023] = 'x';  // the buffer is 1024 bytes long
    delete[] v;
    EXPECT_EQ(p.seekPar("Nope"), nullptr);
}

TEST_F(ParserFile, AbsentKeysAndSectionsGiveDefaults) {
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));
    EXPECT_EQ(p.seekInt("Missing", 0), 0);
    EXPECT_EQ(p.seekInt("Missing", 9), 9);
    EXPECT_DOUBLE_EQ(p.seekDouble("Missing", 0.0), 0.0);
    EXPECT_FALSE(p.seekFlag("Missing"));
    EXPECT_EQ(p.seekString("Missing", "def"), "def");
    // Keys are compared whole, not by prefix.
    EXPECT_EQ(p.seekInt("Coun", 0), 0);
    EXPECT_EQ(p.seekInt("Count2", 0), 0);
    // Keys after the first empty line are outside the section.
    EXPECT_EQ(p.seekInt("Hidden", 0), 0);
    // A key of another section is not visible.
    EXPECT_EQ(p.seekInt("Count", 0), 42);  // own section first...
    ASSERT_TRUE(p.seekArgument("SECOND"));
    EXPECT_EQ(p.seekInt("Ratio", 0), 0);  // ...and FIRST's keys are gone
    // A missing section, after one was found: defaults, the process goes on.
    EXPECT_FALSE(p.seekArgument("NO_SUCH_SECTION"));
    EXPECT_EQ(p.seekInt("Count", 3), 3);
    EXPECT_EQ(p.seekIntArray("Ints", 3), nullptr);
    EXPECT_EQ(p.seekIntMatrix("Mat", 2, 3), nullptr);
}

TEST_F(ParserFile, ArraysAndMatrices) {
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));

    int* ints = p.seekIntArray("Ints", 3);
    ASSERT_NE(ints, nullptr);
    EXPECT_EQ(ints[0], 3);
    EXPECT_EQ(ints[1], -1);
    EXPECT_EQ(ints[2], 7);
    delete[] ints;

    double* doubles = p.seekDoubleArray("Doubles", 3);
    ASSERT_NE(doubles, nullptr);
    EXPECT_DOUBLE_EQ(doubles[0], 0.5);
    EXPECT_DOUBLE_EQ(doubles[1], 1000.0);
    EXPECT_DOUBLE_EQ(doubles[2], -2.0);
    delete[] doubles;

    float* floats = p.seekFloatArray("Doubles", 2);
    ASSERT_NE(floats, nullptr);
    EXPECT_FLOAT_EQ(floats[1], 1000.0f);
    delete[] floats;

    char** words = p.seekStringArray("Words", 3);
    ASSERT_NE(words, nullptr);
    EXPECT_STREQ(words[0], "alpha");
    EXPECT_STREQ(words[1], "beta");
    EXPECT_STREQ(words[2], "gamma");
    ConfigFileParser::freeStrings(words, 3);

    int** m = p.seekIntMatrix("Mat", 2, 3);
    ASSERT_NE(m, nullptr);
    const int expected[2][3] = {{1, 2, 3}, {4, 5, 6}};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(m[r][c], expected[r][c]) << r << "," << c;
    ConfigFileParser::freeMatrix(m, 2);

    double** dm = p.seekDoubleMatrix("DMat", 2, 2);
    ASSERT_NE(dm, nullptr);
    EXPECT_DOUBLE_EQ(dm[0][1], 1.5);
    EXPECT_DOUBLE_EQ(dm[1][0], 2.5);
    ConfigFileParser::freeMatrix(dm, 2);

    float** fm = p.seekFloatMatrix("DMat", 2, 2);
    ASSERT_NE(fm, nullptr);
    EXPECT_FLOAT_EQ(fm[1][1], 3.5f);
    ConfigFileParser::freeMatrix(fm, 2);

    char*** sm = p.seekMatrix("Mat", 2, 3);
    ASSERT_NE(sm, nullptr);
    EXPECT_STREQ(sm[0][2], "3");
    EXPECT_STREQ(sm[1][0], "4");
    ConfigFileParser::freeStringMatrix(sm, 2, 3);

    EXPECT_EQ(p.seekIntArray("Absent", 3), nullptr);
    EXPECT_EQ(p.seekDoubleArray("Absent", 3), nullptr);
    EXPECT_EQ(p.seekArray("Absent", 3), nullptr);
    EXPECT_EQ(p.seekDoubleMatrix("Absent", 2, 2), nullptr);
    EXPECT_EQ(p.seekMatrix("Absent", 2, 2), nullptr);
}

TEST_F(ParserFile, EoaTellsWhetherTheSectionEndsNext) {
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("FIRST"));
    EXPECT_FALSE(p.eoa());
    EXPECT_FALSE(p.eoa());  // does not move
    EXPECT_FALSE(p.seekFlag("Off"));  // the section's last line
    EXPECT_TRUE(p.eoa());
    ASSERT_TRUE(p.seekArgument("SECOND"));
    EXPECT_EQ(p.seekInt("Count", 0), 7);
    EXPECT_TRUE(p.eoa());  // end of file
}

TEST(ConfigFileParser, CrlfFilesReadLikeLfFiles) {
    const std::string path = writeFile("crlf.ini",
                                       "[A]\r\nInt=12\r\nText=abc\r\nArr={1 2 3}\r\nMat={1 2;3 4}\r\n\r\n"
                                       "Outside=5\r\n\r\n[B]\r\nInt=8\r\n");
    ConfigFileParser p(path);
    ASSERT_TRUE(p.seekArgument("A"));
    EXPECT_EQ(p.seekString("Text", ""), "abc");
    EXPECT_EQ(p.seekInt("Int", 0), 12);
    char* raw = p.seekPar("Text");
    ASSERT_NE(raw, nullptr);
    EXPECT_STREQ(raw, "abc");
    delete[] raw;
    int* arr = p.seekIntArray("Arr", 3);
    ASSERT_NE(arr, nullptr);
    EXPECT_EQ(arr[2], 3);
    delete[] arr;
    int** m = p.seekIntMatrix("Mat", 2, 2);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m[1][1], 4);
    ConfigFileParser::freeMatrix(m, 2);
    // A "\r\n" line closes the section as "\n" does.
    EXPECT_EQ(p.seekInt("Outside", 0), 0);
    ASSERT_TRUE(p.seekArgument("B"));
    EXPECT_EQ(p.seekInt("Int", 0), 8);
    std::remove(path.c_str());
}

TEST(ConfigFileParserDeath, LookupBeforeAnySectionEndsWithMinusOne) {
    const std::string path = writeFile("nosection.ini", "[REAL]\nKey=1\n");
    EXPECT_EXIT(
        {
            ConfigFileParser p(path);
            p.seekInt("Key", 0);
        },
        ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(
        {
            ConfigFileParser p(path);
            p.seekArgument("MISSING");  // a failed search does not count
            p.seekFlag("Key");
        },
        ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(
        {
            ConfigFileParser p(path);
            p.seekIntArray("Key", 1);
        },
        ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(
        {
            ConfigFileParser p(tempPath("does_not_exist.ini"));
            p.seekArgument("REAL");
            p.seekPar("Key");
        },
        ::testing::ExitedWithCode(255), "");
    std::remove(path.c_str());
}

TEST(ConfigFileParser, NonFatalQueriesNeverEndTheProcess) {
    const std::string path =
        writeFile("checked.ini", "[S]\nGood=12\nPadded= 7 \nBad=12abc\nReal=0.25\nHuge=99999999999\n"
                                 "Arr={1 2 3}\nShort={1 2}\nJunk={1 x 3}\nOpen={1 2 3\n");
    ConfigFileParser p(path);
    std::string v;
    EXPECT_FALSE(p.sectionFound());
    EXPECT_FALSE(p.findValue("Good", v));  // would be fatal through seek*
    EXPECT_FALSE(p.hasKey("Good"));
    ASSERT_TRUE(p.seekArgument("S"));
    EXPECT_TRUE(p.sectionFound());
    EXPECT_TRUE(p.hasKey("Good"));
    EXPECT_FALSE(p.hasKey("Nope"));

    int i = -1;
    EXPECT_TRUE(p.checkedInt("Good", i));
    EXPECT_EQ(i, 12);
    EXPECT_TRUE(p.checkedInt("Padded", i));
    EXPECT_EQ(i, 7);
    EXPECT_FALSE(p.checkedInt("Bad", i));
    EXPECT_FALSE(p.checkedInt("Huge", i));
    EXPECT_FALSE(p.checkedInt("Real", i));
    EXPECT_FALSE(p.checkedInt("Nope", i));
    EXPECT_EQ(p.seekInt("Bad", 0), 12);  // the plain reader keeps strtol's reading

    double d = 0.0;
    EXPECT_TRUE(p.checkedDouble("Real", d));
    EXPECT_DOUBLE_EQ(d, 0.25);
    EXPECT_FALSE(p.checkedDouble("Bad", d));

    std::vector<int> a;
    EXPECT_TRUE(p.checkedIntArray("Arr", 3, a));
    EXPECT_EQ(a, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(p.checkedIntArray("Arr", 4, a));
    EXPECT_FALSE(p.checkedIntArray("Short", 3, a));
    EXPECT_FALSE(p.checkedIntArray("Junk", 3, a));
    EXPECT_FALSE(p.checkedIntArray("Open", 3, a));
    EXPECT_FALSE(p.checkedIntArray("Good", 1, a));

    EXPECT_FALSE(p.seekArgument("GONE"));
    EXPECT_FALSE(p.hasKey("Good"));
    std::remove(path.c_str());
}

}  // namespace
