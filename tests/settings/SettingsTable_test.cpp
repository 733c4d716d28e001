#include "settings/SettingsTable.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

#include "common/TestSupport.h"
#include "settings/ConfigFileParser.h"
#include "settings/DHC_SET.h"

namespace {

using dhc::SettingKind;
using dhc::SettingRow;

bool supervisedOnly(const SettingRow& row) {
    return std::string(row.section) == "SUPERVISED_MODE_CONF";
}

// A value per row that no other row gets: a row bound to another field reads
// another row's value.
std::string distinct(const SettingRow& row) {
    if (row.kind == SettingKind::Flag) return "1";
    return std::to_string(static_cast<int>(row.id) + 2);
}

// Every row's key, in its section, with its distinct value; the supervised
// rows only in a supervised configuration (the reader reads them only then).
std::string configuration(bool supervised) {
    std::string text;
    for (const char* section :
         {"SEGM_MAIN_CONFIGURATION", "UNSUPERVISED_MODE_CONF", "SUPERVISED_MODE_CONF", "POTTS_MODEL", "MEANSHIFT"}) {
        text += std::string("[") + section + "]\n";
        for (const SettingRow& row : dhc::settingsTable()) {
            if (std::string(row.section) != section || row.kind == SettingKind::IntArray) continue;
            if (row.id == dhc::Setting::SupervisedMode)
                text += std::string(row.key) + (supervised ? "=1\n" : "=0\n");
            else if (row.id == dhc::Setting::NumberOfClasses)
                text += std::string(row.key) + "=0\n";  // no structure to read
            else
                text += std::string(row.key) + "=" + distinct(row) + "\n";
        }
        text += "\n";
    }
    return text;
}

TEST(SettingsTable, EveryRowNamesTheFieldTheReaderFills) {
    for (bool supervised : {false, true}) {
        SCOPED_TRACE(supervised ? "supervised" : "unsupervised");
        ConfigFileParser parser = ConfigFileParser::ofText(configuration(supervised));
        const DHC_SET set(parser);
        for (const SettingRow& row : dhc::settingsTable()) {
            SCOPED_TRACE(row.key);
            if (row.kind == SettingKind::IntArray || row.id == dhc::Setting::SupervisedMode ||
                row.id == dhc::Setting::NumberOfClasses)
                continue;
            // The supervised reader skips the unsupervised section but for Fragmentation.
            const bool read = row.id == dhc::Setting::Fragmentation ||
                              std::string(row.section) != "UNSUPERVISED_MODE_CONF" || !supervised;
            if (supervisedOnly(row) || !read) continue;
            EXPECT_EQ(dhc::settingValue(set, row), std::strtod(distinct(row).c_str(), nullptr));
        }
        EXPECT_EQ(set.supervisedMode, supervised);
    }
}

TEST(SettingsTable, DefaultsAreThoseOfTheShippedConfiguration) {
    const std::string path = std::string(DHC_SOURCE_DIR) + "/examples/default.ini";
    const DHC_SET shipped(path);
    ConfigFileParser file(path);
    std::set<std::string> keys;
    for (const SettingRow& row : dhc::settingsTable()) {
        SCOPED_TRACE(row.key);
        keys.insert(row.key);
        ASSERT_TRUE(file.seekArgument(row.section));
        if (row.defaultText == nullptr) {
            EXPECT_EQ(file.seekString(row.key, "absent"), "absent");
            continue;
        }
        EXPECT_EQ(file.seekString(row.key, "absent"), row.defaultText);
        EXPECT_EQ(dhc::settingValue(shipped, row), std::strtod(row.defaultText, nullptr));
    }
    // ... and the file holds no key the table lacks.
    const std::string text = dhc::test::readFile(path);
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        const size_t eq = line.find('=');
        if (eq != std::string::npos && line[0] != ';') {
            EXPECT_EQ(keys.count(line.substr(0, eq)), 1u) << line;
        }
        at = end == std::string::npos ? text.size() : end + 1;
    }
}

TEST(SettingsTable, NamesAreUniqueInEveryFrontEnd) {
    std::set<std::string> attributes, keys, properties, fields;
    for (const SettingRow& row : dhc::settingsTable()) {
        EXPECT_TRUE(attributes.insert(row.attribute).second) << row.attribute;
        EXPECT_TRUE(keys.insert(std::string(row.section) + "." + row.key).second) << row.key;
        EXPECT_TRUE(properties.insert(row.property).second) << row.property;
        EXPECT_TRUE(fields.insert(row.field).second) << row.field;
        EXPECT_EQ(dhc::findSetting(row.section, row.key), &row);
    }
    EXPECT_EQ(dhc::findSetting("POTTS_MODEL", "MaxNumberOfClasses"), nullptr);
    EXPECT_STREQ(dhc::propertyLeaf(dhc::settingRow(dhc::Setting::BlindSplitMSEMin)), "MSE");
}

}  // namespace
