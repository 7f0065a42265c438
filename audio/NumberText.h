#pragma once

#include <string>

/// Returns `value` with at most six digits, as printf's %g does in the C locale, regardless of the
/// application's locale. Returns "?" for NaN.
std::string numberText(double value);
