#pragma once

#include <string>

/// `value` in at most six digits, as printf's %g writes it in the C locale, independent of the application's
/// locale. "?" for what is not a number.
std::string numberText(double value);
