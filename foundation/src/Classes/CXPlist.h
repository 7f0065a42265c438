#pragma once

#include <nlohmann/json.hpp>

/// A property-list value: dictionary, array, string, number, boolean, or null for none. Strings are UTF-8.
/// A boolean counts as a number wherever a number is asked for.
using CXPlist = nlohmann::json;
