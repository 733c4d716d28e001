#pragma once
// The tree of a finished run as JSON data: one object per region with its
// report, the ranked split sequence, the class count of every cut, the
// settings of the run and the version of the program that made it.  The
// layout is documented by docs/tree.schema.json (format version 1).

#include <nlohmann/json.hpp>
#include <string>

struct DHC_SET;

namespace dhc {

class Hierarchy;

// Version of the layout below; raised when a field changes meaning or goes.
constexpr int kTreeFormatVersion = 1;

// The document; `program` and `version` name what made it (e.g. "dhc", "0.1.0").
nlohmann::ordered_json treeJson(const Hierarchy& tree, const DHC_SET& settings, const std::string& program,
                                const std::string& version);

// The document as text, two-space indented, ending with a newline.
std::string treeJsonText(const Hierarchy& tree, const DHC_SET& settings, const std::string& program,
                         const std::string& version);

// The settings record as a JSON object keyed by field name.
nlohmann::ordered_json settingsJson(const DHC_SET& settings);

}  // namespace dhc
