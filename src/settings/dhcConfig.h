#pragma once
// Converts the MATLAB/Octave settings object (DhcSettings and its sub-objects,
// or plain structs with the same field names) into a DHC_SET.  Compiled into
// the MEX module only.

#include "mex.h"
#include "settings/DHC_SET.h"

// Reads the property tree top -> "unsupSet" -> {"classicSet", "blindSet"},
// top -> "supSet" (supervised runs only), top -> "engineSet".  A bool is value
// != 0, an int is the value truncated toward zero, a double is copied.  The
// "active" property of "blindSet" is read and then overridden: blindActive is
// true exactly when depth, MSE or area is non-zero.  Returns a new DHC_SET
// owned by the caller; problems are thrown as MxError (mex/mxGrip.h).
DHC_SET* dhcConfig(const mxArray* settings);
