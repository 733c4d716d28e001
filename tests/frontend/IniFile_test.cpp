// The tool's configuration check against the library's own reader: whatever
// the check accepts must be read by the reader as written, and what the reader
// would misread or pass by is refused with the line it stands on.

#include "frontend/IniFile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "settings/DHC_SET.h"

namespace {

// A supervised configuration of two classes whose StructureLevels line
// (line 6) carries `levels` as its value text.
std::string supervised(const std::string& levels) {
    return "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=1\n\n[SUPERVISED_MODE_CONF]\nNumberOfClasses=2\n"
           "StructureLevels=" +
           levels + "\nStructurePaths={0 1}\n";
}

// The message of the InputError that check() throws, or "" when it accepts.
std::string refusal(const IniFile& ini) {
    try {
        ini.check();
    } catch (const InputError& e) {
        return e.what();
    }
    return "";
}

TEST(IniFileCheck, AcceptsAnArrayOnlyWhenTheReaderReadsItAsWritten) {
    // Every text below means the levels {1 1} to a reader of the file.
    const std::vector<std::string> accepted = {"{1 1}", "{1  1}", "{ 1\t1 }", "{+1 1}", "{1 1}  ", "{1 1}\r"};
    const std::vector<std::string> refused = {" {1 1}", "\t{1 1}", "[1 1}", "{1 1}x", "{1 1} 1",
                                              "{1;1}",  "{{1 1}",  "{1 1",  "{1x 1}", "{1 1}}"};
    for (const std::string& text : accepted) {
        SCOPED_TRACE(text);
        const IniFile ini("a.ini", supervised(text));
        ASSERT_EQ(refusal(ini), "");
        const auto settings = readSettings(ini);
        ASSERT_EQ(settings->numberOfClasses, 2);
        EXPECT_EQ(settings->structureLevels[0], 1);
        EXPECT_EQ(settings->structureLevels[1], 1);
    }
    for (const std::string& text : refused) {
        SCOPED_TRACE(text);
        EXPECT_EQ(refusal(IniFile("a.ini", supervised(text))).rfind("a.ini:6: StructureLevels must be ", 0),
                  0u);
    }
    EXPECT_EQ(
        refusal(IniFile("a.ini", supervised(" {1 1}"))),
        "a.ini:6: StructureLevels must be a list in braces with '{' directly after '=', not \" {1 1}\"");
}

TEST(IniFileCheck, RefusesControlBytesWithTheLineNumber) {
    const std::string nul(
        "Multiplicity=\0"
        "4",
        15);
    const std::string base = "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n[POTTS_MODEL]\n";
    const std::pair<std::string, std::string> cases[] = {
        {base + nul + "\n", "c.ini:5: control character (byte 0x00) in the line"},
        {base + "Multiplicity=4\n; note \x01\n", "c.ini:6: control character (byte 0x01) in the line"},
        {base + "Multiplicity=4\r\x0b\n", "c.ini:5: control character (byte 0x0d) in the line"},
        {base + "Multi\x7fplicity=4\n", "c.ini:5: control character (byte 0x7f) in the line"},
        {"[SEGM_MAIN_CONFIGURATION]\x1b\nSupervisedMode=0\n",
         "c.ini:1: control character (byte 0x1b) in the line"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(message);
        EXPECT_EQ(refusal(IniFile("c.ini", text)), message);
    }
    // A key with a blank around it is passed by the reader.
    EXPECT_EQ(refusal(IniFile("c.ini", base + "Multiplicity =4\n")),
              "c.ini:5: blank around the key Multiplicity (write Multiplicity=value)");
    EXPECT_EQ(refusal(IniFile("c.ini", base + "\tMultiplicity=4\n")),
              "c.ini:5: blank around the key Multiplicity (write Multiplicity=value)");
    // Tabs and the carriage return of a CRLF line end are ordinary.
    EXPECT_EQ(refusal(IniFile("c.ini",
                              "[SEGM_MAIN_CONFIGURATION]\r\nSupervisedMode=\t0\r\n\r\n"
                              "[POTTS_MODEL]\r\nMultiplicity=4\r\n")),
              "");

    IniFile ini("c.ini", base + "Multiplicity=4\n");
    try {
        ini.applyOverride("POTTS_MODEL.BetaMax=1\x02");
        ADD_FAILURE() << "override accepted";
    } catch (const InputError& e) {
        EXPECT_EQ(e.status(), kExitUsage);
        EXPECT_STREQ(e.what(), "--set POTTS_MODEL.BetaMax=1\x02: control character (byte 0x02) in the value");
    }
}

}  // namespace
