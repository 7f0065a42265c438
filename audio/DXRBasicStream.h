#pragma once

#include "AudioRecords.h"
#include "CXExport.h"
#include "CXRef.h"

#include <cstddef>
#include <optional>
#include <vector>

/// The format of a device's stream.
/// Threads:   immutable; any.
/// Real time: the queries; making one, its archive or a description allocates.
class DXR_EXPORT DXRBasicStream final : public CXObject {
public:
    /// Two channels at 44100 Hz.
    static CXRef<DXRBasicStream> init();
    /// Packed 32-bit float samples, as the hardware layer hands them out.
    static CXRef<DXRBasicStream> initWithVirtualChannelCount(uint32_t channelCount, double sampleRate);
    /// Null for a null pointer.
    static CXRef<DXRBasicStream> initWithDesc(const AudioStreamBasicDescription* desc);
    /// Null when there is no archive or it is not 40 bytes long.
    static CXRef<DXRBasicStream> initWithArchive(const std::optional<std::vector<std::byte>>& archive);

    const AudioStreamBasicDescription& desc() const noexcept { return _desc; }
    /// The description's 40 bytes.
    std::vector<std::byte> archive() const;
    uint32_t bitsPerChannel() const noexcept { return _desc.bitsPerChannel; }
    uint32_t channelCount() const noexcept { return _desc.channelsPerFrame; }
    double sampleRate() const noexcept { return _desc.sampleRate; } ///< Hz
    /// Linear samples that several clients may share.
    bool isMixable() const noexcept;

    /// "(44.1kHz, 2ch)"; other formats than float say so.
    std::string description() const override;
    /// The same without the channel count where that is `channelCount`; 0 always names it.
    std::string descriptionWithoutChannelCount(uint32_t channelCount) const;
    /// To the bit.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRBasicStream(const AudioStreamBasicDescription& desc) noexcept : _desc(desc) {}
    ~DXRBasicStream() override;

    const AudioStreamBasicDescription _desc;
};
