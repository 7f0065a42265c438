#pragma once

#include "AudioRecords.h"
#include "CXExport.h"
#include "CXRef.h"

#include <cstddef>
#include <optional>
#include <vector>

/// The format of a device's stream.
/// Threads:   immutable; any.
/// Real time: the queries; creating a stream, its archive or a description allocates.
class DXR_EXPORT DXRBasicStream final : public CXObject {
public:
    /// Two channels at 44100 Hz.
    static CXRef<DXRBasicStream> init();
    /// Packed 32-bit float samples, the format that the hardware layer provides.
    static CXRef<DXRBasicStream> initWithVirtualChannelCount(uint32_t channelCount, double sampleRate);
    /// Returns null if `desc` is null.
    static CXRef<DXRBasicStream> initWithDesc(const AudioStreamBasicDescription* desc);
    /// Returns null if there is no archive or it is not 40 bytes long.
    static CXRef<DXRBasicStream> initWithArchive(const std::optional<std::vector<std::byte>>& archive);

    const AudioStreamBasicDescription& desc() const noexcept { return _desc; }
    /// The 40 bytes of the description.
    std::vector<std::byte> archive() const;
    uint32_t bitsPerChannel() const noexcept { return _desc.bitsPerChannel; }
    uint32_t channelCount() const noexcept { return _desc.channelsPerFrame; }
    double sampleRate() const noexcept { return _desc.sampleRate; } ///< Hz
    /// Returns true for linear samples that several clients may share.
    bool isMixable() const noexcept;

    /// "(44.1kHz, 2ch)", with the sample format unless it is float.
    std::string description() const override;
    /// The same text, but without the channel count if it is `channelCount`; 0 always includes it.
    std::string descriptionWithoutChannelCount(uint32_t channelCount) const;
    /// Compares all bits.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRBasicStream(const AudioStreamBasicDescription& desc) noexcept : _desc(desc) {}
    ~DXRBasicStream() override;

    const AudioStreamBasicDescription _desc;
};
