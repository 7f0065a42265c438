#include "CXValue.h"

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
    return value && value->_plist == _plist;
}

size_t CXValue::hash() const
{
    return std::hash<CXPlist>()(_plist);
}
