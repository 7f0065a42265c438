#include "HALPropertyWriter.h"

#include "CXValue.h"

void HALPropertyWriter::putValue(const CXPlist& value)
{
    if (_record) {
        _record->append(value.dump(-1, ' ', false, CXPlist::error_handler_t::replace)).push_back('\0');
        return;
    }
    CXObject* object = nullptr;
    if (!_isCounting && _size + sizeof object <= _room.size())
        object = CXValue::initWithPlist(value).leak();
    put(object);
}
