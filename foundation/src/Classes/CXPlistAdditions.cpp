#include "CXPlistAdditions.h"

#include "CXException.h"
#include "CXStringAdditions.h"

#include <cmath>
#include <limits>

namespace {

/// Returns the value for `key`, or null if there is none.
const CXPlist* find(const CXPlist& dictionary, std::string_view key)
{
    if (!dictionary.is_object())
        return nullptr;
    const auto found = dictionary.find(key);
    return found == dictionary.end() || found->is_null() ? nullptr : &*found;
}

bool isNumber(const CXPlist& value)
{
    return value.is_number() || value.is_boolean();
}

int32_t intValue(const CXPlist& value)
{
    if (value.is_number_unsigned())
        return static_cast<int32_t>(static_cast<uint32_t>(value.get<uint64_t>()));
    if (value.is_number_integer())
        return static_cast<int32_t>(static_cast<uint32_t>(value.get<int64_t>()));
    const double real = std::trunc(CXDoubleValue(value));
    constexpr double min = std::numeric_limits<int32_t>::min();
    constexpr double max = std::numeric_limits<int32_t>::max();
    return std::isnan(real) ? 0 : static_cast<int32_t>(std::fmax(min, std::fmin(max, real)));
}

bool boolValue(const CXPlist& value)
{
    const auto* const text = value.get_ptr<const std::string*>();
    if (!text)
        return CXDoubleValue(value) != 0.0;
    const size_t first = text->find_first_not_of(" \t\n\r");
    if (first == std::string::npos)
        return false;
    return std::string_view("YyTt").find((*text)[first]) != std::string_view::npos ||
           CXLeadingNumber(*text) != 0.0;
}

CXSize sizeValue(const CXPlist& value)
{
    if (value.is_array() && value.size() == 2)
        return {CXDoubleValue(value[0]), CXDoubleValue(value[1])};
    double sides[2] = {0, 0};
    if (const auto* text = value.get_ptr<const std::string*>();
        text && CXScanDoubleArray(*text, sides, 2) == 2)
        return {sides[0], sides[1]};
    return {0, 0};
}

bool isEqualNumber(const CXPlist& value, const CXPlist& other)
{
    if (!isNumber(other) && !other.is_string())
        return false;
    // Not by ==, which considers the largest unsigned number equal to -1.
    const double a = CXDoubleValue(value);
    const double b = CXDoubleValue(other);
    if (isNumber(other) && (a == b || (std::isnan(a) && std::isnan(b))))
        return true;
    // Subtracts in single precision and compares in double precision: archives written by other programs rely
    // on it.
    constexpr double tolerance = 0.0005;
    return static_cast<double>(std::fabs(static_cast<float>(a) - static_cast<float>(b))) < tolerance;
}

bool isEqualDictionary(const CXPlist& value, const CXPlist& other,
                       const std::optional<std::string>& ignoredKey)
{
    const auto countOf = [&](const CXPlist& dictionary) {
        return dictionary.size() - (ignoredKey && dictionary.contains(*ignoredKey) ? 1 : 0);
    };
    if (!other.is_object() || countOf(value) != countOf(other))
        return false;
    for (const auto& [key, mine] : value.items()) {
        if (ignoredKey && key == *ignoredKey)
            continue;
        const auto theirs = other.find(key);
        // The order of the arguments matters for a number and a string.
        if (theirs == other.end() || !vtIsEqual(*theirs, mine, ignoredKey))
            return false;
    }
    return true;
}

} // namespace

double CXDoubleValue(const CXPlist& value)
{
    if (value.is_boolean())
        return value.get<bool>() ? 1.0 : 0.0;
    if (value.is_number())
        return value.get<double>();
    if (const auto* text = value.get_ptr<const std::string*>())
        return CXLeadingNumber(*text);
    return 0.0;
}

CXPlist vt_map(const CXPlist& array, CXBlockRef<CXPlist(const CXPlist&)> transform)
{
    CXPlist result = CXPlist::array();
    if (!array.is_array())
        return result;
    for (const CXPlist& element : array) {
        result.push_back(transform(element));
        if (result.back().is_null())
            throw CXException("NSInvalidArgumentException", "vt_map: null for an element");
    }
    return result;
}

CXPlist vt_compact_map(const CXPlist& array, CXBlockRef<CXPlist(const CXPlist&)> transform)
{
    CXPlist result = CXPlist::array();
    if (!array.is_array())
        return result;
    for (const CXPlist& element : array)
        safeAddObject(result, transform(element));
    return result;
}

CXPlist vt_match(const CXPlist& array, CXBlockRef<bool(const CXPlist&)> predicate)
{
    if (!array.is_array())
        return nullptr;
    for (const CXPlist& element : array) {
        if (predicate(element))
            return element;
    }
    return nullptr;
}

CXPlist vt_select(const CXPlist& array, CXBlockRef<bool(const CXPlist&)> predicate)
{
    return vt_compact_map(array,
                          [&](const CXPlist& element) { return predicate(element) ? element : CXPlist(); });
}

void safeAddObject(CXPlist& array, const CXPlist& object)
{
    if (array.is_array() && !object.is_null())
        array.push_back(object);
}

CXPlist vt_select(const CXPlist& dictionary, CXBlockRef<bool(const std::string&, const CXPlist&)> predicate)
{
    CXPlist result = CXPlist::object();
    if (!dictionary.is_object())
        return result;
    for (const auto& [key, value] : dictionary.items()) {
        if (predicate(key, value))
            result[key] = value;
    }
    return result;
}

CXPlist safeObjectForKey(const CXPlist& dictionary, std::string_view key)
{
    return safeObjectForKey(dictionary, key, nullptr);
}

CXPlist safeObjectForKey(const CXPlist& dictionary, std::string_view key, const CXPlist& defaultValue)
{
    const CXPlist* const value = find(dictionary, key);
    return value ? *value : defaultValue;
}

CXPlist vtObjectForKey(const CXPlist& dictionary, std::string_view key, const CXPlist& defaultValue)
{
    return safeObjectForKey(dictionary, key, defaultValue);
}

CXPlist vtObjectForKey(const CXPlist& dictionary, std::string_view key, CXPlistKind kind)
{
    const CXPlist* const value = find(dictionary, key);
    if (!value)
        return nullptr;
    const bool isOfKind = (kind == CXPlistKind::Dictionary && value->is_object()) ||
                          (kind == CXPlistKind::Array && value->is_array()) ||
                          (kind == CXPlistKind::String && value->is_string()) ||
                          (kind == CXPlistKind::Number && isNumber(*value));
    return isOfKind ? *value : CXPlist();
}

int64_t safeIntegerForKey(const CXPlist& dictionary, std::string_view key)
{
    return vtIntForKey(dictionary, key, 0);
}

double safeDoubleForKey(const CXPlist& dictionary, std::string_view key)
{
    const CXPlist* const value = find(dictionary, key);
    return value ? CXDoubleValue(*value) : 0.0;
}

bool safeBoolForKey(const CXPlist& dictionary, std::string_view key)
{
    return vtBoolForKey(dictionary, key, false);
}

bool vtBoolForKey(const CXPlist& dictionary, std::string_view key, bool defaultValue)
{
    const CXPlist* const value = find(dictionary, key);
    return value ? boolValue(*value) : defaultValue;
}

int32_t vtIntForKey(const CXPlist& dictionary, std::string_view key, int32_t defaultValue)
{
    const CXPlist* const value = find(dictionary, key);
    return value ? intValue(*value) : defaultValue;
}

float vtFloatForKey(const CXPlist& dictionary, std::string_view key, float defaultValue)
{
    const CXPlist* const value = find(dictionary, key);
    return value ? static_cast<float>(CXDoubleValue(*value)) : defaultValue;
}

CXSize vtSizeForKey(const CXPlist& dictionary, std::string_view key, CXSize defaultValue)
{
    const CXPlist* const value = find(dictionary, key);
    return value ? sizeValue(*value) : defaultValue;
}

void vt_safeSetObject(CXPlist& dictionary, const CXPlist& object, const std::optional<std::string>& key)
{
    if (dictionary.is_object() && key && !object.is_null())
        dictionary[*key] = object;
}

void safeSetBool(CXPlist& dictionary, bool value, const std::optional<std::string>& key)
{
    vt_safeSetObject(dictionary, value, key);
}

bool vtIsEqual(const CXPlist& value, const CXPlist& other, const std::optional<std::string>& ignoredKey)
{
    if (&value == &other)
        return true;
    if (value.is_object())
        return isEqualDictionary(value, other, ignoredKey);
    if (isNumber(value))
        return isEqualNumber(value, other);
    if (!value.is_array())
        return value == other;
    if (!other.is_array() || value.size() != other.size())
        return false;
    for (size_t i = 0; i < value.size(); ++i) {
        if (!vtIsEqual(value[i], other[i], ignoredKey))
            return false;
    }
    return true;
}
