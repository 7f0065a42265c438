#pragma once

#include <nlohmann/json.hpp>

/// A property-list value: dictionary, array, string, number, boolean, or null for none. Strings are UTF-8.
/// Where a number is expected, a boolean is converted to a number.
using CXPlist = nlohmann::json;
