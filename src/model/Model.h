#pragma once
// What labelling new pixels needs from a finished run, as data: every leaf's
// label, mean and covariance, the Potts beta, the value conversion the run's
// image went through, and, for the record, the settings, the tree and the
// program that made it.  Written and read as JSON (docs/model.schema.json,
// format version 1); doubles are written in their shortest form that reads
// back to the same bits, so a model survives any number of round trips.
//
// Every front end (tool, Python package, MEX module) reads a model through
// parseModel: one set of checks, one set of messages.

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace dhc {

// Version of the model layout; raised when a field changes meaning or goes.
constexpr int kModelFormatVersion = 1;

// Synchronous ICM sweeps of the labelling, and how far (in pixels, in rows
// and columns) the label of a pixel can see: each sweep visits the four
// classes of pixels (row parity, column parity) one after the other, and each
// visit lets information travel one pixel.
constexpr int kLabelSweeps = 3;
constexpr int kLabelRadius = 4 * kLabelSweeps;

// One final leaf: the Gaussian class pixels are labelled with.
struct ModelLeaf {
    int label = 0;
    std::vector<double> mean;        // bands values
    std::vector<double> covariance;  // bands x bands, row-major, symmetric positive definite
};

// How an image's values became the integers the model was learnt on.
struct ValueConversion {
    bool floatBands = false;  // the image had floating-point bands...
    double scale = 1;         // ...multiplied by this and rounded half away from zero
    bool hasNodata = false;   // a nodata value replaced every band's own
    double nodata = 0;
};

struct Model {
    int bands = 0;
    double beta = 0;
    std::vector<ModelLeaf> leaves;  // in ascending label order
    ValueConversion values;
    nlohmann::ordered_json settings = nlohmann::ordered_json::object();  // as in the tree document
    nlohmann::ordered_json tree = nlohmann::ordered_json::object();      // the tree document (--tree)
    std::string program = "dhc", version;
};

// The model as JSON and as text (two-space indented, ending with a newline).
nlohmann::ordered_json modelJson(const Model& model);
std::string modelJsonText(const Model& model);

// Reads and checks a model.  `name` names it in messages ("model \"m.json\"").
// Throws an InputError (kExitInput, id "dhc:badModel") for text that is not
// JSON, another document, a newer format, a missing or mistyped field, a
// non-finite number, leaves of another band count, repeated labels, and a
// covariance that is not symmetric positive definite.
Model parseModel(const std::string& text, const std::string& name);
// The same from a file (a file that cannot be read is an InputError too).
Model readModelFile(const std::string& path);

// The lower Cholesky factor of a bands x bands row-major matrix; false when
// the matrix is not (numerically) positive definite.
bool cholesky(const std::vector<double>& a, int n, std::vector<double>& lower);

}  // namespace dhc
