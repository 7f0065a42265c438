#include "DXRRangedStream.h"

#include "SampleRateHash.h"
#include "StreamFormat.h"

#include <cstring>

DXRRangedStream::~DXRRangedStream() = default;

CXRef<DXRRangedStream> DXRRangedStream::init()
{
    return initWithVirtualChannelCount(2, 44100);
}

CXRef<DXRRangedStream> DXRRangedStream::initWithVirtualChannelCount(uint32_t channelCount, double sampleRate)
{
    const AudioStreamRangedDescription desc{streamFormat::virtualFormat(channelCount, sampleRate),
                                            {sampleRate, sampleRate}};
    return initWithDesc(&desc);
}

CXRef<DXRRangedStream> DXRRangedStream::initWithDesc(const AudioStreamRangedDescription* desc)
{
    return desc ? CXRef<DXRRangedStream>::adopt(new DXRRangedStream(*desc)) : nullptr;
}

CXRef<DXRRangedStream> DXRRangedStream::initWithArchive(const std::optional<std::vector<std::byte>>& archive)
{
    AudioStreamRangedDescription desc{};
    if (!archive || archive->size() != sizeof desc)
        return nullptr;
    std::memcpy(&desc, archive->data(), sizeof desc);
    return initWithDesc(&desc);
}

std::vector<std::byte> DXRRangedStream::archive() const
{
    const auto bytes = std::as_bytes(std::span(&_desc, 1));
    return {bytes.begin(), bytes.end()};
}

double DXRRangedStream::sampleRate() const
{
    if (!isRange())
        return _desc.format.sampleRate;
    constexpr double preferred[] = {44100, 48000, 88200, 96000};
    const std::vector<double> contained = containedSampleRates(preferred);
    return contained.empty() ? _desc.sampleRateRange.minimum : contained.front();
}

bool DXRRangedStream::isMixable() const noexcept
{
    return streamFormat::isMixable(_desc.format);
}

bool DXRRangedStream::containsSampleRate(double sampleRate) const noexcept
{
    if (!isRange())
        return sampleRate == _desc.format.sampleRate;
    return _desc.sampleRateRange.minimum <= sampleRate && sampleRate <= _desc.sampleRateRange.maximum;
}

std::vector<double> DXRRangedStream::containedSampleRates(std::span<const double> sampleRates) const
{
    return _rates()->containedValues(sampleRates);
}

CXRef<DXRBasicStream> DXRRangedStream::basicStream() const
{
    AudioStreamBasicDescription desc = _desc.format;
    desc.sampleRate = sampleRate();
    return DXRBasicStream::initWithDesc(&desc);
}

CXRef<DXRValueRange> DXRRangedStream::_rates() const
{
    return isRange() ? DXRValueRange::initWithRange(&_desc.sampleRateRange)
                     : DXRValueRange::initWithValue(_desc.format.sampleRate);
}

std::string DXRRangedStream::description() const
{
    return descriptionWithoutChannelCount(0);
}

std::string DXRRangedStream::descriptionWithoutChannelCount(uint32_t channelCount) const
{
    const std::vector<std::string> parts =
        streamFormat::parts(_desc.format, _rates()->descriptionForSampleRate(), channelCount);
    return parts.size() == 1 ? parts.front() : streamFormat::joined(parts);
}

bool DXRRangedStream::isEqual(const CXObject* other) const
{
    if (this == other)
        return true;
    const auto* const stream = dynamic_cast<const DXRRangedStream*>(other);
    return stream && std::memcmp(&stream->_desc, &_desc, sizeof _desc) == 0;
}

size_t DXRRangedStream::hash() const
{
    return streamFormat::hash(_desc.format) ^ wholeNumberForHash(_desc.sampleRateRange.minimum) ^
           wholeNumberForHash(_desc.sampleRateRange.maximum);
}
