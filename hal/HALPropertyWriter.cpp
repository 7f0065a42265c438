#include "HALPropertyWriter.h"

#include "CXValue.h"

void HALPropertyWriter::putString(const std::string& text)
{
    CXObject* object = nullptr;
    if (!_isCounting && _size + sizeof object <= _room.size())
        object = CXValue::initWithPlist(text).leak();
    put(object);
}
