#include "HALPropertyWriter.h"

#include "CXValue.h"

void HALPropertyWriter::putValue(const CXPlist& value)
{
    CXObject* object = nullptr;
    if (!_isCounting && _size + sizeof object <= _room.size())
        object = CXValue::initWithPlist(value).leak();
    put(object);
}
