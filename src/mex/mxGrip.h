#pragma once
// A grip on MATLAB/Octave arrays: the readers that turn column-major double
// arrays into the row-pointer arrays the core works on, and the property access
// shared by the gateway and dhcConfig.
//
// Nothing here calls mexErrMsgTxt: a MATLAB error may unwind without running
// C++ destructors, so every problem is thrown as MxError and raised by the
// gateway only after all owners of the call have been released.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>

#include "mex.h"

// An error to be raised toward MATLAB: identifier and message.
class MxError : public std::runtime_error {
  public:
    MxError(std::string id, const std::string& message) : std::runtime_error(message), id_(std::move(id)) {}
    const std::string& id() const { return id_; }

  private:
    std::string id_;
};

// Rank checks of the readers.  They stay on in every build.  By default a
// failure becomes the MATLAB error "dhc:assert" carrying the assertion text, so
// a wrong array does not end the user's session; with DHC_MEX_LITERAL_EXIT it
// aborts the host process, as a failed C assertion does.
#define DHC_MX_ASSERT(cond) ((cond) ? static_cast<void>(0) : mxGripAssertFail(#cond, __LINE__))

[[noreturn]] inline void mxGripAssertFail(const char* text, int line) {
    const std::string message =
        std::string("../src/mex/mxGrip.h:") + std::to_string(line) + ": Assertion `" + text + "' failed.";
#ifdef DHC_MEX_LITERAL_EXIT
    std::fprintf(stderr, "%s\n", message.c_str());
    std::abort();
#else
    throw MxError("dhc:assert", message);
#endif
}

// n values of a row or column vector (1x1 counts as one column).
template <typename T>
T* readMxVector(const mxArray* array, int& n) {
    const mwSize nd = mxGetNumberOfDimensions(array);
    DHC_MX_ASSERT((nd == 2));
    const mwSize* dim = mxGetDimensions(array);
    DHC_MX_ASSERT((dim[0] == 1 || dim[1] == 1));
    n = static_cast<int>(dim[0] == 1 ? dim[1] : dim[0]);
    const double* pr = mxGetPr(array);
    T* v = new T[n];
    for (int i = 0; i < n; ++i) v[i] = static_cast<T>(pr[i]);
    return v;
}

// rows new rows of cols values; element [r][c] is MATLAB's (r, c).
template <typename T>
T** readMxMatrix(const mxArray* array, int& rows, int& cols) {
    const mwSize nd = mxGetNumberOfDimensions(array);
    DHC_MX_ASSERT((nd == 2));
    const mwSize* dim = mxGetDimensions(array);
    rows = static_cast<int>(dim[0]);
    cols = static_cast<int>(dim[1]);
    const double* pr = mxGetPr(array);
    T** m = new T*[rows]();
    for (int r = 0; r < rows; ++r) {
        m[r] = new T[cols];
        for (int c = 0; c < cols; ++c) m[r][c] = static_cast<T>(pr[r + static_cast<size_t>(c) * rows]);
    }
    return m;
}

// bands matrices of rows x cols; cube[b][r][c] is MATLAB's (r, c, b).  A 2-D
// array is one band.
template <typename T>
T*** readMxCube(const mxArray* array, int& bands, int& rows, int& cols) {
    const mwSize nd = mxGetNumberOfDimensions(array);
    DHC_MX_ASSERT((nd == 2 || nd == 3));
    const mwSize* dim = mxGetDimensions(array);
    rows = static_cast<int>(dim[0]);
    cols = static_cast<int>(dim[1]);
    bands = nd == 3 ? static_cast<int>(dim[2]) : 1;
    const double* pr = mxGetPr(array);
    const size_t plane = static_cast<size_t>(rows) * cols;
    T*** cube = new T**[bands];
    for (int b = 0; b < bands; ++b) {
        cube[b] = new T*[rows];
        for (int r = 0; r < rows; ++r) {
            cube[b][r] = new T[cols];
            for (int c = 0; c < cols; ++c)
                cube[b][r][c] = static_cast<T>(pr[r + static_cast<size_t>(c) * rows + b * plane]);
        }
    }
    return cube;
}

// A property value read from an object (or a field of a plain struct), owned
// when the MATLAB API handed out a copy, and converted to double when the
// caller stored another numeric or logical type.
class MxValue {
  public:
    MxValue() = default;
    MxValue(mxArray* array, bool owned) : array_(array), owned_(owned) {}
    MxValue(MxValue&& other) noexcept : array_(other.array_), owned_(other.owned_) { other.release(); }
    MxValue& operator=(MxValue&& other) noexcept {
        if (this != &other) {
            reset();
            array_ = other.array_;
            owned_ = other.owned_;
            other.release();
        }
        return *this;
    }
    MxValue(const MxValue&) = delete;
    MxValue& operator=(const MxValue&) = delete;
    ~MxValue() { reset(); }

    const mxArray* get() const { return array_; }
    explicit operator bool() const { return array_ != nullptr; }
    bool empty() const { return array_ == nullptr || mxGetNumberOfElements(array_) == 0; }

  private:
    void reset() {
        if (owned_ && array_ != nullptr) mxDestroyArray(array_);
        release();
    }
    void release() {
        array_ = nullptr;
        owned_ = false;
    }

    mxArray* array_ = nullptr;
    bool owned_ = false;
};

namespace mxgrip_detail {

template <typename S>
void copyAsDouble(const mxArray* from, double* to, size_t n) {
    const S* p = static_cast<const S*>(mxGetData(from));
    for (size_t i = 0; i < n; ++i) to[i] = static_cast<double>(p[i]);
}

// A new double array of the same shape, or null for a type that is not numeric.
inline mxArray* toDouble(const mxArray* a) {
    const size_t n = mxGetNumberOfElements(a);
    mxArray* d = nullptr;
    auto make = [&]() {
        d = mxCreateNumericArray(mxGetNumberOfDimensions(a), mxGetDimensions(a), mxDOUBLE_CLASS, mxREAL);
        return mxGetPr(d);
    };
    switch (mxGetClassID(a)) {
        case mxSINGLE_CLASS:
            copyAsDouble<float>(a, make(), n);
            break;
        case mxINT8_CLASS:
            copyAsDouble<int8_t>(a, make(), n);
            break;
        case mxUINT8_CLASS:
            copyAsDouble<uint8_t>(a, make(), n);
            break;
        case mxINT16_CLASS:
            copyAsDouble<int16_t>(a, make(), n);
            break;
        case mxUINT16_CLASS:
            copyAsDouble<uint16_t>(a, make(), n);
            break;
        case mxINT32_CLASS:
            copyAsDouble<int32_t>(a, make(), n);
            break;
        case mxUINT32_CLASS:
            copyAsDouble<uint32_t>(a, make(), n);
            break;
        case mxINT64_CLASS:
            copyAsDouble<int64_t>(a, make(), n);
            break;
        case mxUINT64_CLASS:
            copyAsDouble<uint64_t>(a, make(), n);
            break;
        case mxLOGICAL_CLASS:
            copyAsDouble<mxLogical>(a, make(), n);
            break;
        default:
            break;
    }
    return d;
}

// Element i of a numeric block of class id, as double (0 for another class).
inline double elementAsDouble(mxClassID id, const void* p, size_t i) {
    switch (id) {
        case mxDOUBLE_CLASS:
            return static_cast<const double*>(p)[i];
        case mxSINGLE_CLASS:
            return static_cast<const float*>(p)[i];
        case mxINT8_CLASS:
            return static_cast<const int8_t*>(p)[i];
        case mxUINT8_CLASS:
            return static_cast<const uint8_t*>(p)[i];
        case mxINT16_CLASS:
            return static_cast<const int16_t*>(p)[i];
        case mxUINT16_CLASS:
            return static_cast<const uint16_t*>(p)[i];
        case mxINT32_CLASS:
            return static_cast<const int32_t*>(p)[i];
        case mxUINT32_CLASS:
            return static_cast<const uint32_t*>(p)[i];
        case mxINT64_CLASS:
            return static_cast<double>(static_cast<const int64_t*>(p)[i]);
        case mxUINT64_CLASS:
            return static_cast<double>(static_cast<const uint64_t*>(p)[i]);
        default:
            return 0;
    }
}

// A full double array of a sparse double or logical matrix, or null for
// another sparse type.
inline mxArray* sparseToFull(const mxArray* a) {
    const size_t rows = mxGetM(a), cols = mxGetN(a);
    const mwIndex* jc = mxGetJc(a);
    const mwIndex* ir = mxGetIr(a);
    const bool logical = mxIsLogical(a);
    if (!logical && !mxIsDouble(a)) return nullptr;
    mxArray* d = mxCreateDoubleMatrix(rows, cols, mxREAL);
    double* to = mxGetPr(d);
    for (size_t c = 0; c < cols; ++c)
        for (mwIndex k = jc[c]; k < jc[c + 1]; ++k)
            to[ir[k] + c * rows] =
                logical ? static_cast<double>(static_cast<const mxLogical*>(mxGetData(a))[k]) : mxGetPr(a)[k];
    return d;
}

}  // namespace mxgrip_detail

// Property `name` of element 0 of an object or, for a plain struct, its field
// of that name; null when neither exists.  Returned as stored (sub-objects).
inline MxValue mxProperty(const mxArray* object, const char* name) {
    if (object == nullptr) return MxValue();
    if (mxIsStruct(object)) {
        if (mxGetNumberOfElements(object) == 0) return MxValue();
        return MxValue(mxGetField(object, 0, name), false);
    }
    return MxValue(mxGetProperty(object, 0, name), true);
}

// As mxProperty, but the property must exist.
inline MxValue mxRequiredProperty(const mxArray* object, const char* name) {
    MxValue value = mxProperty(object, name);
    if (!value) throw MxError("dhc:missingProperty", std::string("no property or field \"") + name + "\"");
    return value;
}

// A value as MATLAB writes it: NaN, Inf, -Inf, else %g.
inline std::string mxNumberText(double v);

// Refuses a complex array with a non-zero imaginary part: the readers take
// the real parts only, and the rest would be lost without a word.
inline void mxCheckReal(const mxArray* array, const char* name) {
    if (!mxIsComplex(array)) return;
    const size_t n = mxIsSparse(array) ? mxGetNzmax(array) : mxGetNumberOfElements(array);
    const void* imag = mxGetImagData(array);
    const void* real = mxGetData(array);
    const mxClassID id = mxGetClassID(array);
    for (size_t i = 0; imag != nullptr && i < n; ++i) {
        const double im = mxgrip_detail::elementAsDouble(id, imag, i);
        if (im == 0) continue;
        const double re = mxgrip_detail::elementAsDouble(id, real, i);
        throw MxError("dhc:badProperty", std::string("\"") + name + "\" holds the complex value " +
                                             mxNumberText(re) + (im < 0 ? "" : "+") + mxNumberText(im) +
                                             "i at element " + std::to_string(i + 1) +
                                             "; values must be real");
    }
}

// A numeric property as a double array (other numeric and logical types are
// converted); null when it does not exist.  A complex array is refused unless
// every imaginary part is zero.
inline MxValue mxNumericProperty(const mxArray* object, const char* name) {
    MxValue value = mxProperty(object, name);
    if (value) mxCheckReal(value.get(), name);
    if (value && mxIsSparse(value.get())) {
        // The readers address the array as full storage.
        mxArray* full = mxgrip_detail::sparseToFull(value.get());
        if (full == nullptr)
            throw MxError("dhc:badProperty",
                          std::string("\"") + name + "\" must be a numeric or logical array");
        return MxValue(full, true);
    }
    if (!value || mxIsDouble(value.get())) return value;
    mxArray* converted = mxgrip_detail::toDouble(value.get());
    if (converted == nullptr)
        throw MxError("dhc:badProperty", std::string("\"") + name + "\" must be a numeric or logical array");
    return MxValue(converted, true);
}

// As mxNumericProperty, but the property must exist.
inline MxValue mxRequiredNumericProperty(const mxArray* object, const char* name) {
    MxValue value = mxNumericProperty(object, name);
    if (!value) throw MxError("dhc:missingProperty", std::string("no property or field \"") + name + "\"");
    return value;
}

// A value as MATLAB writes it: NaN, Inf, -Inf, else %g.
inline std::string mxNumberText(double v) {
    if (v != v) return "NaN";
    char text[64];
    std::snprintf(text, sizeof text, "%g", v);
    const std::string t = text;
    return t == "inf" ? "Inf" : t == "-inf" ? "-Inf" : t;
}

// Every value of a double array must convert to int32 (after truncation
// toward zero): NaN, infinities and values outside the range would be
// undefined conversions.
inline void mxCheckIntValues(const mxArray* array, const std::string& name) {
    const size_t n = mxGetNumberOfElements(array);
    const double* pr = mxGetPr(array);
    for (size_t i = 0; i < n; ++i) {
        const double v = pr[i];
        if (v > -2147483649.0 && v < 2147483648.0) continue;
        throw MxError("dhc:badValue", "\"" + name + "\" holds " + mxNumberText(v) + " at element " +
                                          std::to_string(i + 1) +
                                          "; values must be finite and within the int32 range");
    }
}

// First element of a required numeric property, as double.
inline double mxScalar(const mxArray* object, const char* name) {
    MxValue value = mxRequiredNumericProperty(object, name);
    if (value.empty()) throw MxError("dhc:badProperty", std::string("\"") + name + "\" is empty");
    return mxGetPr(value.get())[0];
}
