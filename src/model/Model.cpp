#include "model/Model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include "base/InputError.h"
#include "frontend/InputFile.h"

namespace dhc {

namespace {

using json = nlohmann::ordered_json;

[[noreturn]] void refuse(const std::string& name, const std::string& why) {
    throw InputError(kExitInput, name + ": " + why, "dhc:badModel");
}

const json& field(const json& object, const char* key, const std::string& where, const std::string& name) {
    const auto it = object.find(key);
    if (it == object.end()) refuse(name, "missing field \"" + where + key + "\"");
    return *it;
}

double finite(const json& v, const std::string& what, const std::string& name) {
    if (!v.is_number()) refuse(name, what + " must be a number, not " + (v.is_null() ? "null" : v.dump()));
    const double d = v.get<double>();
    if (!std::isfinite(d)) refuse(name, what + " is not a finite number");
    return d;
}

int integer(const json& v, const std::string& what, long lo, long hi, const std::string& name) {
    if (!v.is_number_integer() || v.get<long long>() < lo || v.get<long long>() > hi)
        refuse(name, what + " must be a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
                         ", not " + v.dump());
    return static_cast<int>(v.get<long long>());
}

std::vector<double> vector(const json& v, size_t n, const std::string& what, const std::string& name) {
    if (!v.is_array() || v.size() != n)
        refuse(name, what + " must be an array of " + std::to_string(n) + " numbers (the model's bands)");
    std::vector<double> out;
    out.reserve(n);
    // what is quoted: the element goes inside the quotes.
    const std::string stem = what.substr(0, what.size() - 1);
    for (size_t i = 0; i < n; ++i) out.push_back(finite(v[i], stem + "[" + std::to_string(i) + "]\"", name));
    return out;
}

}  // namespace

bool cholesky(const std::vector<double>& a, int n, std::vector<double>& lower) {
    lower.assign(static_cast<size_t>(n) * static_cast<size_t>(n), 0.0);
    for (int j = 0; j < n; ++j) {
        double d = a[static_cast<size_t>(j * n + j)];
        for (int k = 0; k < j; ++k) d -= lower[static_cast<size_t>(j * n + k)] * lower[static_cast<size_t>(j * n + k)];
        // Relative to the diagonal entry: a pivot lost to rounding is singular.
        if (!(d > 1e-12 * std::fabs(a[static_cast<size_t>(j * n + j)])) || !std::isfinite(d)) return false;
        const double root = std::sqrt(d);
        lower[static_cast<size_t>(j * n + j)] = root;
        for (int i = j + 1; i < n; ++i) {
            double s = a[static_cast<size_t>(i * n + j)];
            for (int k = 0; k < j; ++k)
                s -= lower[static_cast<size_t>(i * n + k)] * lower[static_cast<size_t>(j * n + k)];
            lower[static_cast<size_t>(i * n + j)] = s / root;
        }
    }
    return true;
}

json modelJson(const Model& m) {
    json doc;
    doc["format"] = "dhc-model";
    doc["formatVersion"] = kModelFormatVersion;
    doc["program"] = {{"name", m.program}, {"version", m.version}};
    doc["bands"] = m.bands;
    doc["values"] = {{"floatBands", m.values.floatBands},
                     {"scale", m.values.floatBands ? json(m.values.scale) : json(nullptr)},
                     {"nodata", m.values.hasNodata ? json(m.values.nodata) : json(nullptr)}};
    doc["beta"] = m.beta;
    doc["labelling"] = {{"sweeps", kLabelSweeps}, {"radius", kLabelRadius}};
    json leaves = json::array();
    std::vector<const ModelLeaf*> byLabel;
    for (const ModelLeaf& leaf : m.leaves) byLabel.push_back(&leaf);
    std::sort(byLabel.begin(), byLabel.end(), [](const ModelLeaf* a, const ModelLeaf* b) { return a->label < b->label; });
    for (const ModelLeaf* l : byLabel) {
        const ModelLeaf& leaf = *l;
        json covariance = json::array();
        for (int i = 0; i < m.bands; ++i)
            covariance.push_back(std::vector<double>(leaf.covariance.begin() + i * m.bands,
                                                     leaf.covariance.begin() + (i + 1) * m.bands));
        leaves.push_back({{"label", leaf.label}, {"mean", leaf.mean}, {"covariance", covariance}});
    }
    doc["leaves"] = leaves;
    doc["settings"] = m.settings;
    doc["tree"] = m.tree;
    return doc;
}

std::string modelJsonText(const Model& m) {
    return modelJson(m).dump(2) + "\n";
}

Model parseModel(const std::string& text, const std::string& name) {
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::exception& e) {
        std::string why = e.what();
        const size_t colon = why.find("] ");
        if (colon != std::string::npos) why = why.substr(colon + 2);
        refuse(name, "not a JSON document (" + why + ")");
    }
    if (!doc.is_object()) refuse(name, "not a dhc model (the document is not a JSON object)");
    const auto format = doc.find("format");
    if (format == doc.end() || !format->is_string() || *format != "dhc-model")
        refuse(name, "not a dhc model (its \"format\" is not \"dhc-model\")");
    const json& version = field(doc, "formatVersion", "", name);
    if (!version.is_number_integer() || version.get<long long>() < 1)
        refuse(name, "\"formatVersion\" must be a positive whole number, not " + version.dump());
    if (version.get<long long>() > kModelFormatVersion)
        refuse(name, "format version " + version.dump() + " is newer than this dhc reads (" +
                         std::to_string(kModelFormatVersion) + "); a later dhc wrote it");

    Model m;
    const json& program = field(doc, "program", "", name);
    if (!program.is_object() || !program.contains("name") || !program["name"].is_string() ||
        !program.contains("version") || !program["version"].is_string())
        refuse(name, "\"program\" must hold the strings \"name\" and \"version\"");
    m.program = program["name"].get<std::string>();
    m.version = program["version"].get<std::string>();
    m.bands = integer(field(doc, "bands", "", name), "\"bands\"", 1, 65535, name);
    m.beta = finite(field(doc, "beta", "", name), "\"beta\"", name);

    const json& values = field(doc, "values", "", name);
    if (!values.is_object()) refuse(name, "\"values\" must be an object");
    const json& floats = field(values, "floatBands", "values.", name);
    if (!floats.is_boolean()) refuse(name, "\"values.floatBands\" must be true or false");
    m.values.floatBands = floats.get<bool>();
    const json& scale = field(values, "scale", "values.", name);
    if (m.values.floatBands) {
        m.values.scale = finite(scale, "\"values.scale\"", name);
        if (!(m.values.scale > 0)) refuse(name, "\"values.scale\" must be positive");
    } else if (!scale.is_null()) {
        refuse(name, "\"values.scale\" must be null when \"values.floatBands\" is false");
    }
    const json& nodata = field(values, "nodata", "values.", name);
    if (!nodata.is_null()) {
        m.values.hasNodata = true;
        m.values.nodata = finite(nodata, "\"values.nodata\"", name);
    }

    const json& labelling = field(doc, "labelling", "", name);
    if (!labelling.is_object() || labelling.value("sweeps", json()) != json(kLabelSweeps) ||
        labelling.value("radius", json()) != json(kLabelRadius))
        refuse(name, "\"labelling\" must be {\"sweeps\": " + std::to_string(kLabelSweeps) +
                         ", \"radius\": " + std::to_string(kLabelRadius) + "}, the labelling of this format");

    const json& leaves = field(doc, "leaves", "", name);
    if (!leaves.is_array() || leaves.empty()) refuse(name, "\"leaves\" must be a non-empty array");
    std::set<int> labels;
    const size_t d = static_cast<size_t>(m.bands);
    for (size_t i = 0; i < leaves.size(); ++i) {
        const std::string where = "leaves[" + std::to_string(i) + "]";
        const json& l = leaves[i];
        if (!l.is_object()) refuse(name, "\"" + where + "\" must be an object");
        ModelLeaf leaf;
        leaf.label = integer(field(l, "label", where + ".", name), "\"" + where + ".label\"", 1,
                             std::numeric_limits<int32_t>::max(), name);
        if (!labels.insert(leaf.label).second)
            refuse(name, "label " + std::to_string(leaf.label) + " is given to more than one leaf");
        leaf.mean = vector(field(l, "mean", where + ".", name), d, "\"" + where + ".mean\"", name);
        const json& cov = field(l, "covariance", where + ".", name);
        if (!cov.is_array() || cov.size() != d)
            refuse(name, "\"" + where + ".covariance\" must be " + std::to_string(d) + " rows of " +
                             std::to_string(d) + " numbers");
        for (size_t r = 0; r < d; ++r) {
            const std::vector<double> row =
                vector(cov[r], d, "\"" + where + ".covariance[" + std::to_string(r) + "]\"", name);
            leaf.covariance.insert(leaf.covariance.end(), row.begin(), row.end());
        }
        for (size_t r = 0; r < d; ++r)
            for (size_t c = 0; c < r; ++c) {
                const double a = leaf.covariance[r * d + c], b = leaf.covariance[c * d + r];
                if (std::fabs(a - b) > 1e-9 * std::max(std::fabs(a), std::fabs(b)))
                    refuse(name, "the covariance of leaf " + std::to_string(leaf.label) + " is not symmetric");
            }
        std::vector<double> lower;
        if (!cholesky(leaf.covariance, m.bands, lower))
            refuse(name, "the covariance of leaf " + std::to_string(leaf.label) + " is not positive definite");
        m.leaves.push_back(std::move(leaf));
    }
    std::sort(m.leaves.begin(), m.leaves.end(),
              [](const ModelLeaf& a, const ModelLeaf& b) { return a.label < b.label; });

    const json& settings = field(doc, "settings", "", name);
    if (!settings.is_object()) refuse(name, "\"settings\" must be an object");
    m.settings = settings;
    const json& tree = field(doc, "tree", "", name);
    if (!tree.is_object()) refuse(name, "\"tree\" must be an object");
    m.tree = tree;
    return m;
}

Model readModelFile(const std::string& path) {
    // A regular file of a sane size: a pipe would block, a device never end.
    constexpr size_t kMaxModelBytes = size_t{256} << 20;
    return parseModel(readInputFile(path, "model", kMaxModelBytes), "model \"" + path + "\"");
}

}  // namespace dhc
