#include "CXValue.h"

#include <algorithm>

namespace {

/// Compares as == does, except that == considers the largest unsigned number equal to -1.
bool isSame(const CXPlist& a, const CXPlist& b)
{
    if (a.is_number_integer() && b.is_number_integer() && a.type() != b.type()) {
        const CXPlist& withSign = a.is_number_unsigned() ? b : a;
        return withSign.get<int64_t>() >= 0 && a == b;
    }
    if (a.is_array() && b.is_array())
        return std::equal(a.begin(), a.end(), b.begin(), b.end(), isSame);
    if (!a.is_object() || !b.is_object())
        return a == b;
    return a.size() == b.size() && std::ranges::all_of(a.items(), [&](const auto& entry) {
               const auto other = b.find(entry.key());
               return other != b.end() && isSame(entry.value(), *other);
           });
}

} // namespace

CXRef<CXValue> CXValue::initWithPlist(CXPlist plist)
{
    return CXRef<CXValue>::adopt(new CXValue(std::move(plist)));
}

CXValue::CXValue(CXPlist plist) : _plist(std::move(plist)) {}

const std::string& CXValue::string() const noexcept
{
    static const std::string none;
    const auto* text = _plist.get_ptr<const std::string*>();
    return text ? *text : none;
}

std::string CXValue::description() const
{
    return _plist.is_string() ? string() : _plist.dump(-1, ' ', false, CXPlist::error_handler_t::replace);
}

bool CXValue::isEqual(const CXObject* other) const
{
    const auto* value = dynamic_cast<const CXValue*>(other);
    return value && isSame(_plist, value->_plist);
}

size_t CXValue::hash() const
{
    // Equal numbers may have different types, signed and unsigned.
    if (_plist.is_number())
        return std::hash<double>()(_plist.get<double>());
    return _plist.is_string() ? std::hash<std::string>()(string()) : _plist.size();
}
