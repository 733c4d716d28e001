#pragma once
// A checker for the part of JSON Schema (2020-12) that docs/tree.schema.json
// uses: type (one or a list), const, required, properties,
// additionalProperties false, items, minimum and local "$ref": "#/$defs/NAME".
// Anything else in a schema is reported as unsupported, so the checker can
// never silently accept a document because it ignored a keyword.

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace dhc::test {

class JsonSchemaCheck {
  public:
    explicit JsonSchemaCheck(nlohmann::json schema) : root_(std::move(schema)) {}

    // Problems of the document, one line each ("/regions/3/area: missing"); empty when valid.
    std::vector<std::string> problems(const nlohmann::json& doc) const {
        std::vector<std::string> out;
        check(root_, doc, "", out);
        return out;
    }

  private:
    static bool hasType(const nlohmann::json& v, const std::string& type) {
        if (type == "object") return v.is_object();
        if (type == "array") return v.is_array();
        if (type == "string") return v.is_string();
        if (type == "boolean") return v.is_boolean();
        if (type == "null") return v.is_null();
        if (type == "integer") return v.is_number_integer();
        if (type == "number") return v.is_number();
        return false;
    }

    void check(const nlohmann::json& schema, const nlohmann::json& v, const std::string& where,
               std::vector<std::string>& out) const {
        static const std::set<std::string> known = {
            "$schema", "$id",      "title",      "description",          "type",
            "const",   "required", "properties", "additionalProperties", "items",
            "minimum", "$ref",     "$defs"};
        const std::string at = where.empty() ? "/" : where;
        for (const auto& [key, value] : schema.items())
            if (known.count(key) == 0) out.push_back(at + ": unsupported schema keyword " + key);
        if (schema.contains("$ref")) {
            const std::string ref = schema["$ref"];
            const std::string prefix = "#/$defs/";
            if (ref.rfind(prefix, 0) != 0 || !root_["$defs"].contains(ref.substr(prefix.size()))) {
                out.push_back(at + ": unresolved $ref " + ref);
                return;
            }
            check(root_["$defs"][ref.substr(prefix.size())], v, where, out);
        }
        if (schema.contains("type")) {
            const nlohmann::json& t = schema["type"];
            bool ok = false;
            if (t.is_string()) ok = hasType(v, t);
            for (const auto& one : t.is_array() ? t : nlohmann::json::array()) ok = ok || hasType(v, one);
            if (!ok) {
                out.push_back(at + ": expected type " + t.dump() + ", found " + v.type_name());
                return;
            }
        }
        if (schema.contains("const") && v != schema["const"])
            out.push_back(at + ": expected " + schema["const"].dump() + ", found " + v.dump());
        if (schema.contains("minimum") && v.is_number() && v.get<double>() < schema["minimum"].get<double>())
            out.push_back(at + ": " + v.dump() + " is below the minimum " + schema["minimum"].dump());
        if (v.is_object()) {
            if (schema.contains("required"))
                for (const auto& name : schema["required"])
                    if (!v.contains(name.get<std::string>()))
                        out.push_back(at + ": missing " + name.get<std::string>());
            const nlohmann::json properties = schema.value("properties", nlohmann::json::object());
            for (const auto& [key, value] : v.items()) {
                if (properties.contains(key))
                    check(properties[key], value, where + "/" + key, out);
                else if (schema.contains("additionalProperties") && schema["additionalProperties"] == false)
                    out.push_back(at + ": unexpected member " + key);
            }
        }
        if (v.is_array() && schema.contains("items"))
            for (size_t i = 0; i < v.size(); ++i)
                check(schema["items"], v[i], where + "/" + std::to_string(i), out);
    }

    nlohmann::json root_;
};

}  // namespace dhc::test
