#include "DXRCoreBuffer.h"

DXRCoreBuffer::~DXRCoreBuffer() = default;

CXRef<DXRCoreBuffer> DXRCoreBuffer::initWithBuffer(const AudioBuffer* buffer)
{
    return buffer ? CXRef<DXRCoreBuffer>::adopt(new DXRCoreBuffer(*buffer)) : nullptr;
}

bool DXRCoreBuffer::isEqual(const CXObject* other) const
{
    if (this == other)
        return true;
    const auto* const core = dynamic_cast<const DXRCoreBuffer*>(other);
    return core && core->_buffer.numberChannels == _buffer.numberChannels &&
           core->_buffer.dataByteSize == _buffer.dataByteSize && core->_buffer.data == _buffer.data;
}

size_t DXRCoreBuffer::hash() const
{
    return _buffer.dataByteSize ^ _buffer.numberChannels ^ reinterpret_cast<uintptr_t>(_buffer.data);
}
