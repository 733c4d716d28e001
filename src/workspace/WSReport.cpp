#include "workspace/WSReport.h"

#include <fstream>

#include "settings/RowMatrix.h"

WSReport::~WSReport() {
    delete[] path;
    delete[] children;
    delete[] offspring;
    delete[] chAreas;
    delete[] mean;
    dhc::deleteRows(covariance, nBands);
}

namespace {

// "Name = [" v0 " " v1 " " ... "];" and a line end.
template <class V>
void writeList(std::ostream& out, const char* name, const V* values, int n) {
    out << name << " = [";
    if (values != nullptr)
        for (int i = 0; i < n; ++i) out << values[i] << " ";
    out << "];\n";
}

}  // namespace

void WSReport::appendToFile(std::string fileName, bool withStats, bool withCovariance) {
    std::fstream out(fileName, std::ios::in | std::ios::out | std::ios::app);
    if (!out.is_open()) return;
    write(out, withStats, withCovariance);
}

void WSReport::write(std::ostream& out, bool withStats, bool withCovariance) const {
    out << "\n[NEW WORKSPACE]\n";
    out << "WSLab = " << WSLab << ";\n";
    writeList(out, "Path", path, pathLength);
    writeList(out, "Children", children, nChildren);
    writeList(out, "Offspring", offspring, nOffspring);
    out << "Area = " << area << ";\n";
    if (withStats) {
        out << "TotalLikelihoodEnergy = " << totalLikelihoodEnergy << ";\n";
        writeList(out, "Mean", mean, nBands);
    }
    if (withCovariance) {
        out << "Covariance = [\n";
        if (covariance != nullptr) {
            for (int i = 0; i < nBands; ++i) {
                for (int j = 0; j < nBands; ++j) out << covariance[i][j] << " ";
                out << (i + 1 < nBands ? "\n" : "];\n");
            }
        }
    }
    out << "Split = " << split << ";\n";
    out << "Terminal = " << terminal << ";\n";
    if (split) {
        out << "Beta = " << beta << ";\n";
        out << "Edges = " << edges << ";\n";
        out << "TextureBased = " << textureBased << ";\n";
        out << "SplitGain_MRF = " << splitGainMRF << ";\n";
        out << "MixtureSplitGain_TFR = " << mixtureSplitGainTFR << ";\n";
        out << "SplitGain_TFR = " << splitGainTFR << ";\n";
        writeList(out, "ChAreas", chAreas, nChildren);
    }
}
