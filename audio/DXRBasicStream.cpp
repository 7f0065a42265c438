#include "DXRBasicStream.h"

#include "StreamFormat.h"

#include <cstring>
#include <span>

DXRBasicStream::~DXRBasicStream() = default;

CXRef<DXRBasicStream> DXRBasicStream::init()
{
    return initWithVirtualChannelCount(2, 44100);
}

CXRef<DXRBasicStream> DXRBasicStream::initWithVirtualChannelCount(uint32_t channelCount, double sampleRate)
{
    const AudioStreamBasicDescription desc = streamFormat::virtualFormat(channelCount, sampleRate);
    return initWithDesc(&desc);
}

CXRef<DXRBasicStream> DXRBasicStream::initWithDesc(const AudioStreamBasicDescription* desc)
{
    return desc ? CXRef<DXRBasicStream>::adopt(new DXRBasicStream(*desc)) : nullptr;
}

CXRef<DXRBasicStream> DXRBasicStream::initWithArchive(const std::optional<std::vector<std::byte>>& archive)
{
    AudioStreamBasicDescription desc{};
    if (!archive || archive->size() != sizeof desc)
        return nullptr;
    std::memcpy(&desc, archive->data(), sizeof desc);
    return initWithDesc(&desc);
}

std::vector<std::byte> DXRBasicStream::archive() const
{
    const auto bytes = std::as_bytes(std::span(&_desc, 1));
    return {bytes.begin(), bytes.end()};
}

bool DXRBasicStream::isMixable() const noexcept
{
    return streamFormat::isMixable(_desc);
}

std::string DXRBasicStream::description() const
{
    return descriptionWithoutChannelCount(0);
}

std::string DXRBasicStream::descriptionWithoutChannelCount(uint32_t channelCount) const
{
    return streamFormat::joined(
        streamFormat::parts(_desc, streamFormat::rateText(_desc.sampleRate), channelCount));
}

bool DXRBasicStream::isEqual(const CXObject* other) const
{
    if (this == other)
        return true;
    const auto* const stream = dynamic_cast<const DXRBasicStream*>(other);
    return stream && std::memcmp(&stream->_desc, &_desc, sizeof _desc) == 0;
}

size_t DXRBasicStream::hash() const
{
    return streamFormat::hash(_desc);
}
