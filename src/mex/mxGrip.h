#pragma once
// A grip on MATLAB/Octave arrays: the readers that turn column-major double
// arrays into the row-pointer arrays the core works on, and the property access
// shared by the gateway and dhcConfig.
//
// Nothing here calls mexErrMsgTxt: a MATLAB error may unwind without running
// C++ destructors, so every problem is thrown as MxError and raised by the
// gateway only after all owners of the call have been released.

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>
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

namespace mxgrip_detail {

// An element as T.  Integer elements must be finite and within T's range once
// truncated: the conversion of anything else is undefined.  `where` names the
// array and the element in the message.
template <typename T, typename Where>
T element(double v, Where where) {
    if constexpr (std::is_integral_v<T>) {
        const double t = std::trunc(v);
        if (!(t >= static_cast<double>(std::numeric_limits<T>::min()) &&
              t <= static_cast<double>(std::numeric_limits<T>::max()))) {
            char text[64];
            std::snprintf(text, sizeof text, "%.17g", v);
            throw MxError("dhc:badValue", where() + " is " + text + ": values must be finite and within the " +
                                              std::to_string(sizeof(T) * 8) + "-bit integer range");
        }
        return static_cast<T>(t);
    } else {
        return static_cast<T>(v);
    }
}

}  // namespace mxgrip_detail

// n values of a row or column vector (1x1 counts as one column).  name names
// the array in messages.
template <typename T>
T* readMxVector(const mxArray* array, int& n, const char* name = "value") {
    const mwSize nd = mxGetNumberOfDimensions(array);
    DHC_MX_ASSERT((nd == 2));
    const mwSize* dim = mxGetDimensions(array);
    DHC_MX_ASSERT((dim[0] == 1 || dim[1] == 1));
    n = static_cast<int>(dim[0] == 1 ? dim[1] : dim[0]);
    const double* pr = mxGetPr(array);
    std::unique_ptr<T[]> v(new T[n]);
    for (int i = 0; i < n; ++i)
        v[i] = mxgrip_detail::element<T>(
            pr[i], [&] { return std::string("element ") + std::to_string(i + 1) + " of \"" + name + "\""; });
    return v.release();
}

// rows new rows of cols values; element [r][c] is MATLAB's (r, c).
template <typename T>
T** readMxMatrix(const mxArray* array, int& rows, int& cols, const char* name = "value") {
    const mwSize nd = mxGetNumberOfDimensions(array);
    DHC_MX_ASSERT((nd == 2));
    const mwSize* dim = mxGetDimensions(array);
    rows = static_cast<int>(dim[0]);
    cols = static_cast<int>(dim[1]);
    const double* pr = mxGetPr(array);
    T** m = new T*[rows]();
    try {
        for (int r = 0; r < rows; ++r) {
            m[r] = new T[cols];
            for (int c = 0; c < cols; ++c)
                m[r][c] = mxgrip_detail::element<T>(pr[r + static_cast<size_t>(c) * rows], [&] {
                    return "\"" + std::string(name) + "\"(" + std::to_string(r + 1) + ", " + std::to_string(c + 1) +
                           ")";
                });
        }
    } catch (...) {
        for (int r = 0; r < rows; ++r) delete[] m[r];
        delete[] m;
        throw;
    }
    return m;
}

// bands matrices of rows x cols; cube[b][r][c] is MATLAB's (r, c, b).  A 2-D
// array is one band.
template <typename T>
T*** readMxCube(const mxArray* array, int& bands, int& rows, int& cols, const char* name = "value") {
    const mwSize nd = mxGetNumberOfDimensions(array);
    DHC_MX_ASSERT((nd == 2 || nd == 3));
    const mwSize* dim = mxGetDimensions(array);
    rows = static_cast<int>(dim[0]);
    cols = static_cast<int>(dim[1]);
    bands = nd == 3 ? static_cast<int>(dim[2]) : 1;
    const double* pr = mxGetPr(array);
    const size_t plane = static_cast<size_t>(rows) * cols;
    T*** cube = new T**[bands]();
    try {
        for (int b = 0; b < bands; ++b) {
            cube[b] = new T*[rows]();
            for (int r = 0; r < rows; ++r) {
                cube[b][r] = new T[cols];
                for (int c = 0; c < cols; ++c)
                    cube[b][r][c] = mxgrip_detail::element<T>(pr[r + static_cast<size_t>(c) * rows + b * plane], [&] {
                        return "\"" + std::string(name) + "\"(" + std::to_string(r + 1) + ", " +
                               std::to_string(c + 1) + ", " + std::to_string(b + 1) + ")";
                    });
            }
        }
    } catch (...) {
        for (int b = 0; b < bands; ++b) {
            if (cube[b] == nullptr) continue;
            for (int r = 0; r < rows; ++r) delete[] cube[b][r];
            delete[] cube[b];
        }
        delete[] cube;
        throw;
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

namespace mxgrip_detail {

// A full double matrix holding a sparse (double or logical) one: the readers
// index every element, which a sparse array does not store.
inline mxArray* sparseToFull(const mxArray* a) {
    const size_t rows = mxGetM(a), cols = mxGetN(a);
    mxArray* d = mxCreateDoubleMatrix(rows, cols, mxREAL);
    double* out = mxGetPr(d);
    const mwIndex* ir = mxGetIr(a);
    const mwIndex* jc = mxGetJc(a);
    const bool logical = mxIsLogical(a);
    const double* pr = logical ? nullptr : mxGetPr(a);
    const mxLogical* lr = logical ? static_cast<const mxLogical*>(mxGetData(a)) : nullptr;
    for (size_t c = 0; c < cols; ++c)
        for (mwIndex k = jc[c]; k < jc[c + 1]; ++k) out[ir[k] + c * rows] = logical ? (lr[k] ? 1.0 : 0.0) : pr[k];
    return d;
}

}  // namespace mxgrip_detail

// A numeric property as a full double array (other numeric and logical types
// and sparse arrays are converted); null when it does not exist.
inline MxValue mxNumericProperty(const mxArray* object, const char* name) {
    MxValue value = mxProperty(object, name);
    if (value && mxIsSparse(value.get())) return MxValue(mxgrip_detail::sparseToFull(value.get()), true);
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

// First element of a required numeric property, as double.
inline double mxScalar(const mxArray* object, const char* name) {
    MxValue value = mxRequiredNumericProperty(object, name);
    if (value.empty()) throw MxError("dhc:badProperty", std::string("\"") + name + "\" is empty");
    return mxGetPr(value.get())[0];
}
