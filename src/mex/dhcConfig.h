#pragma once
// Converts the MATLAB/Octave settings object (DhcSettings and its sub-objects,
// or plain structs with the same field names) into a DHC_SET.  Compiled into
// the MEX module only.

#include <vector>

#include "mex.h"
#include "settings/DHC_SET.h"

// Reads the property tree top -> "unsupSet" -> {"classicSet", "blindSet"},
// top -> "supSet" (supervised runs only), top -> "engineSet".  A bool is value
// != 0, an int is the value truncated toward zero, a double is copied.  The
// "active" property of "blindSet" is read and then overridden: blindActive is
// true exactly when depth, MSE or area is non-zero.  Returns a new DHC_SET
// owned by the caller; problems are thrown as MxError (mex/mxGrip.h): a
// missing property, an empty or non-numeric value, and an integer setting that
// is NaN, infinite or outside the int32 range ("dhc:badSetting"; converting it
// would be undefined).
//
// A supervised run's structure arrays are copied whole into levels and paths
// when they are given; the caller then checks them against numberOfClasses
// (checkSettings) before the record is used.  Without them a structure shorter
// than numberOfClasses says is refused here ("dhc:badStructure"), so that the
// record never points past its arrays.  "supSet" is read in supervised runs
// only and may be absent otherwise.
DHC_SET* dhcConfig(const mxArray* settings, std::vector<int>* levels = nullptr,
                   std::vector<int>* paths = nullptr);
