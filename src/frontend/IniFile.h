#pragma once
// The configuration text of one segmentation run, checked before the library
// reads it (the tool's --config/--set, the Python package's settings).
//
// The library's ini reader (DHC_SET(fileName)) takes a malformed number as
// whatever prefix strtol/strtod accept and a missing section as a fatal
// condition.  The tool therefore keeps the text line by line, reads it with the
// same rules (a section starts at the first line beginning with "[NAME]", ends
// at the first empty line, the first "Key=" line wins), applies the --set
// overrides to it and checks every setting the library knows, so that a bad
// value is reported as "file:line: ..." before anything runs.  The library's
// reader then reads the checked text from memory.

#include <memory>
#include <string>
#include <vector>

#include "base/InputError.h"
#include "frontend/SettingsCheck.h"
#include "settings/SettingsTable.h"

class IniFile {
  public:
    // Text of a configuration; name is used in messages ("name:line: ...").
    IniFile(std::string name, const std::string& text);
    // Reads a file (a regular file of at most kMaxConfigBytes); a file that
    // cannot be read is an InputError.
    static IniFile fromFile(const std::string& path);

    // Applies one "SECTION.Key=value" override: the first Key line of the
    // section gets the new value, a missing key is added at the top of its
    // section, a missing section is added at the end.  Unknown settings and
    // malformed values are usage errors naming the override.
    void applyOverride(const std::string& assignment);

    // Sets SECTION.Key of a known setting to text the way applyOverride does,
    // on behalf of origin, which names the value in the messages of check()
    // (the Python package passes "settings.beta_max").  The value itself is
    // checked by check(); a value of more than one line is an InputError.
    void assign(const std::string& section, const std::string& key, const std::string& text,
                const std::string& origin);

    // The settings it knows are the rows of the settings table
    // (settings/SettingsTable.h), each read as its kind says.

    // Checks the syntax of the whole configuration the way the run will use
    // it; throws a InputError (status kExitInput) naming the file and line of
    // the first problem.  The values' ranges are checked on the record read
    // from it (checkSettings, SettingsCheck.h).
    void check() const;

    // Value text of SECTION.Key as the library would read it; false when absent.
    bool value(const std::string& section, const std::string& key, std::string& out) const;

    // Where SECTION.Key comes from, for messages: "name:line", the override
    // that set it, or "name: SECTION.Key (missing, read as 0)".
    std::string origin(const std::string& section, const std::string& key) const;
    // The integer SECTION.Key holds; false when absent or malformed.
    bool intValue(const std::string& section, const std::string& key, int& out) const;
    // The whole list of integers SECTION.Key holds; false when absent or malformed.
    bool intArray(const std::string& section, const std::string& key, std::vector<int>& out) const;

    // The configuration text, ready to be written out.
    std::string text() const;
    const std::string& name() const { return name_; }

  private:
    struct Line {
        std::string text;    // without the line end ('\r' kept, as the reader keeps it)
        std::string origin;  // "name:line" or "--set SECTION.Key=value"
    };
    // Index of the line opening [section], or -1.
    int sectionLine(const std::string& section) const;
    // Index of the first "key=" line of the section opened at line s, or -1.
    int keyLine(int s, const std::string& key) const;
    // Index one past the last line of the section opened at line s.
    int sectionEnd(int s) const;
    // Throws unless text is a well-formed value of kind; where names the value in the message.
    static void checkValue(const dhc::SettingRow& setting, const std::string& text, const std::string& where,
                           int status);

    std::string name_;
    std::vector<Line> lines_;
    bool finalNewline_ = true;
};

struct DHC_SET;

// The settings record of a checked configuration, read by the library's own
// reader from the text in memory.
std::unique_ptr<DHC_SET> readSettings(const IniFile& ini);

// Names settings in messages by where their values came from ("cfg.ini:6",
// "--set POTTS_MODEL.Multiplicity=4"); ini must outlive the names.
dhc::SettingNames settingNames(const IniFile& ini);

// The settings record of a configuration, checked whole: the text (check()),
// then the values against their ranges and each other (checkSettings), each
// problem named by where its value came from.  The tool and the Python
// package read every configuration through here.
std::unique_ptr<DHC_SET> readCheckedSettings(const IniFile& ini);
