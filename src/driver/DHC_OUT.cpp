#include "driver/DHC_OUT.h"

#include <utility>

#include "data/ROI.h"
#include "driver/DHC.h"
#include "settings/RowMatrix.h"

DHC_OUT::~DHC_OUT() {
    release();
}

void DHC_OUT::release() {
    dhc::deleteRows(labelMap, rows);
    dhc::deleteRows(auxMap, rows);
    labelMap = nullptr;
    auxMap = nullptr;
    delete labelRoi;
    labelRoi = nullptr;
    delete fragRoi;
    fragRoi = nullptr;
    delete dhc;
    dhc = nullptr;
    rows = -1;
    nClasses = 0;
}

DHC_OUT::DHC_OUT(DHC_OUT&& other) noexcept
    : rows(other.rows),
      labelMap(other.labelMap),
      auxMap(other.auxMap),
      labelRoi(other.labelRoi),
      fragRoi(other.fragRoi),
      nClasses(other.nClasses),
      dhc(other.dhc) {
    other.labelMap = nullptr;
    other.auxMap = nullptr;
    other.labelRoi = nullptr;
    other.fragRoi = nullptr;
    other.dhc = nullptr;
    other.rows = -1;
    other.nClasses = 0;
}

DHC_OUT& DHC_OUT::operator=(DHC_OUT&& other) noexcept {
    if (this != &other) {
        release();
        std::swap(rows, other.rows);
        std::swap(labelMap, other.labelMap);
        std::swap(auxMap, other.auxMap);
        std::swap(labelRoi, other.labelRoi);
        std::swap(fragRoi, other.fragRoi);
        std::swap(nClasses, other.nClasses);
        std::swap(dhc, other.dhc);
    }
    return *this;
}
