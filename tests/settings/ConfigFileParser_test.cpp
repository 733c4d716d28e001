#include "settings/ConfigFileParser.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "common/TestSupport.h"

namespace {

using dhc::test::crlf;

std::string writeIni(const std::string& name, const std::string& text) {
    return dhc::test::writeScratch("cfp_" + name, text);
}

// A line without '=' is skipped; the first empty line ends FIRST, hiding "Hidden".
const std::string kIni =
    "; comment before any section\n"
    "[FIRST] trailing text is allowed after the bracket\n"
    "Count=42\nRatio=2.5\nExpr=a=b\nthis line has no equals sign\n"
    "Ints={3 -1 7}\nDoubles={0.5 1e3 -2}\nWords={alpha beta gamma}\nMat={1 2 3;4 5 6}\nOn=2\n"
    "\nHidden=1\n\n"
    "[SECOND]\nCount=7\n";

TEST(ConfigFileParser, ValuesArraysAndMatricesOfTheCurrentSectionWithLfOrCrlf) {
    for (bool windows : {false, true}) {
        SCOPED_TRACE(windows ? "CRLF" : "LF");
        const std::string path = writeIni("main.ini", windows ? crlf(kIni) : kIni);
        ConfigFileParser p(path);
        ASSERT_TRUE(p.seekArgument("FIRST"));
        EXPECT_FALSE(p.eoa());
        EXPECT_EQ(p.seekInt("Count", -5), 42);
        EXPECT_DOUBLE_EQ(p.seekDouble("Ratio", 0.0), 2.5);
        EXPECT_EQ(p.seekString("Expr", ""), "a=b");  // the key ends at the first '='; no '\r' is left
        EXPECT_TRUE(p.seekFlag("On"));
        EXPECT_TRUE(p.eoa());  // "On" was the section's last line

        int* ints = p.seekIntArray("Ints", 3);
        EXPECT_EQ(std::vector<int>(ints, ints + 3), (std::vector<int>{3, -1, 7}));
        delete[] ints;
        double* doubles = p.seekDoubleArray("Doubles", 3);
        EXPECT_EQ(std::vector<double>(doubles, doubles + 3), (std::vector<double>{0.5, 1000.0, -2.0}));
        delete[] doubles;
        char** words = p.seekStringArray("Words", 3);
        EXPECT_STREQ(words[2], "gamma");
        ConfigFileParser::freeStrings(words, 3);
        int** m = p.seekIntMatrix("Mat", 2, 3);
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 3; ++c) EXPECT_EQ(m[r][c], 3 * r + c + 1);
        ConfigFileParser::freeMatrix(m, 2);
        double** dm = p.seekDoubleMatrix("Mat", 2, 3);
        EXPECT_DOUBLE_EQ(dm[1][2], 6.0);
        ConfigFileParser::freeMatrix(dm, 2);

        // Absent keys give the defaults, and keys compare whole.
        for (const char* key : {"Missing", "Coun", "Hidden"}) {
            SCOPED_TRACE(key);
            EXPECT_EQ(p.seekInt(key, 0), 0);
            EXPECT_EQ(p.seekPar(key), nullptr);
            EXPECT_EQ(p.seekIntArray(key, 3), nullptr);
            EXPECT_EQ(p.seekDoubleMatrix(key, 2, 2), nullptr);
        }
        EXPECT_EQ(p.seekString("Missing", "def"), "def");

        ASSERT_TRUE(p.seekArgument("SECOND"));
        EXPECT_EQ(p.seekInt("Count", -5), 7);
        EXPECT_EQ(p.seekInt("Ratio", 0), 0);  // FIRST's keys are not visible
        // A missing section after one was found: defaults, and the process goes on.
        EXPECT_FALSE(p.seekArgument("NO_SUCH_SECTION"));
        EXPECT_EQ(p.seekInt("Count", 3), 3);
        std::remove(path.c_str());
    }
}

// The reader takes lines in chunks of 1023 bytes, as fgets into its 1024-byte
// buffer: the rest of a longer line is read as a line of its own.  A NUL byte
// ends a value; the last line needs no line end.  Text in memory reads the same.
TEST(ConfigFileParser, TextInMemoryKeepsTheFileReadersQuirks) {
    const std::string longLine = "Pad=" + std::string(1019, 'x') + "Tail=5\n";  // "Tail=" starts at byte 1023
    std::string text = "[S]\n" + longLine + "Nul=1";
    text += '\0';
    text += "9\nLast=3";
    for (bool inMemory : {false, true}) {
        SCOPED_TRACE(inMemory ? "text" : "file");
        const std::string path = writeIni("quirks.ini", text);
        ConfigFileParser p = inMemory ? ConfigFileParser::ofText(text) : ConfigFileParser(path);
        ASSERT_TRUE(p.seekArgument("S"));
        EXPECT_EQ(p.seekInt("Tail", 0), 5);
        EXPECT_EQ(p.seekString("Pad", "").size(), 1019u);
        EXPECT_EQ(p.seekString("Nul", ""), "1");
        EXPECT_EQ(p.seekInt("Last", 0), 3);
        EXPECT_TRUE(p.eoa());  // after the last line
        p.close();
        EXPECT_FALSE(p.seekArgument("S"));
        std::remove(path.c_str());
    }
    // The rest of a long section line is the section's first key line.
    ConfigFileParser p = ConfigFileParser::ofText("[S]" + std::string(1020, ' ') + "Key=7\n");
    ASSERT_TRUE(p.seekArgument("S"));
    EXPECT_EQ(p.seekInt("Key", 0), 7);
}

TEST(ConfigFileParserDeath, LookupBeforeAnySectionEndsWithMinusOne) {
    const std::string path = writeIni("nosection.ini", "[REAL]\nKey=1\n");
    EXPECT_EXIT(ConfigFileParser(path).seekInt("Key", 0), ::testing::ExitedWithCode(255), "");
    EXPECT_EXIT(
        {
            ConfigFileParser p(path);
            p.seekArgument("MISSING");  // a failed search does not count
            p.seekIntArray("Key", 1);
        },
        ::testing::ExitedWithCode(255), "");
    std::remove(path.c_str());
}

}  // namespace
