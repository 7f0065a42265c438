#pragma once

#include "DXRBasicStream.h"
#include "DXRValueRange.h"

/// A format that a device's stream supports, and the sample rates at which it does.
/// Threads:   immutable; any.
/// Real time: the queries, except sampleRate() of a range; that, archives and descriptions allocate.
class DXR_EXPORT DXRRangedStream final : public CXObject {
public:
    /// Two channels at 44100 Hz.
    static CXRef<DXRRangedStream> init();
    /// Packed 32-bit float samples at one rate.
    static CXRef<DXRRangedStream> initWithVirtualChannelCount(uint32_t channelCount, double sampleRate);
    /// Returns null if `desc` is null.
    static CXRef<DXRRangedStream> initWithDesc(const AudioStreamRangedDescription* desc);
    /// Returns null if there is no archive or it is not 56 bytes long.
    static CXRef<DXRRangedStream> initWithArchive(const std::optional<std::vector<std::byte>>& archive);

    const AudioStreamRangedDescription& desc() const noexcept { return _desc; }
    /// The 56 bytes of the description.
    std::vector<std::byte> archive() const;
    uint32_t bitsPerChannel() const noexcept { return _desc.format.bitsPerChannel; }
    uint32_t channelCount() const noexcept { return _desc.format.channelsPerFrame; }
    /// Hz. For a range, the first of 44100, 48000, 88200 and 96000 that it contains, otherwise its minimum.
    double sampleRate() const;
    /// Returns true for linear samples that several clients may share.
    bool isMixable() const noexcept;
    /// Returns true if the stream supports a range of rates instead of a single rate.
    bool isRange() const noexcept { return _desc.format.sampleRate == 0; }
    bool containsSampleRate(double sampleRate) const noexcept;
    /// Returns those of `sampleRates` that the stream supports, in the same order.
    std::vector<double> containedSampleRates(std::span<const double> sampleRates) const;
    /// The format at sampleRate().
    CXRef<DXRBasicStream> basicStream() const;

    /// "(8 - 192kHz, 2ch)", with the sample format unless it is float.
    std::string description() const override;
    /// The same text, but without the channel count if it is `channelCount`; 0 always includes it. A text
    /// with a single part has no parentheses.
    std::string descriptionWithoutChannelCount(uint32_t channelCount) const;
    /// Compares all bits.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRRangedStream(const AudioStreamRangedDescription& desc) noexcept : _desc(desc) {}
    ~DXRRangedStream() override;

    /// The supported rates as a range.
    CXRef<DXRValueRange> _rates() const;

    const AudioStreamRangedDescription _desc;
};
