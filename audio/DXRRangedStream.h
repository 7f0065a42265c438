#pragma once

#include "DXRBasicStream.h"
#include "DXRValueRange.h"

/// A format that a device's stream can take, and the sample rates it can take it at.
/// Threads:   immutable; any.
/// Real time: the plain queries; sampleRate of a range, archives and descriptions allocate.
class DXR_EXPORT DXRRangedStream final : public CXObject {
public:
    /// Two channels at 44100 Hz.
    static CXRef<DXRRangedStream> init();
    /// Packed 32-bit float samples at one rate.
    static CXRef<DXRRangedStream> initWithVirtualChannelCount(uint32_t channelCount, double sampleRate);
    /// Null for a null pointer.
    static CXRef<DXRRangedStream> initWithDesc(const AudioStreamRangedDescription* desc);
    /// Null when there is no archive or it is not 56 bytes long.
    static CXRef<DXRRangedStream> initWithArchive(const std::optional<std::vector<std::byte>>& archive);

    const AudioStreamRangedDescription& desc() const noexcept { return _desc; }
    /// The description's 56 bytes.
    std::vector<std::byte> archive() const;
    uint32_t bitsPerChannel() const noexcept { return _desc.format.bitsPerChannel; }
    uint32_t channelCount() const noexcept { return _desc.format.channelsPerFrame; }
    /// Hz. Of a range, the first of 44100, 48000, 88200 and 96000 that it contains, else its minimum.
    double sampleRate() const;
    /// Linear samples that several clients may share.
    bool isMixable() const noexcept;
    /// Any rate of a range, rather than one.
    bool isRange() const noexcept { return _desc.format.sampleRate == 0; }
    bool containsSampleRate(double sampleRate) const noexcept;
    /// Those of `sampleRates` that the stream can take, in their order.
    std::vector<double> containedSampleRates(std::span<const double> sampleRates) const;
    /// The format at sampleRate().
    CXRef<DXRBasicStream> basicStream() const;

    /// "(8 - 192kHz, 2ch)"; other formats than float say so.
    std::string description() const override;
    /// The same without the channel count where that is `channelCount`; 0 always names it. A single part
    /// stands without parentheses.
    std::string descriptionWithoutChannelCount(uint32_t channelCount) const;
    /// To the bit.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRRangedStream(const AudioStreamRangedDescription& desc) noexcept : _desc(desc) {}
    ~DXRRangedStream() override;

    /// What containsSampleRate and its like accept.
    CXRef<DXRValueRange> _rates() const;

    const AudioStreamRangedDescription _desc;
};
