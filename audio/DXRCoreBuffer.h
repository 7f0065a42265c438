#pragma once

#include "AudioRecords.h"
#include "CXExport.h"
#include "CXRef.h"

/// A hardware buffer's descriptor as an object that can be compared and used as a key. Does not own the
/// samples.
/// Threads: immutable; any.
/// Real time: everything but creation.
class DXR_EXPORT DXRCoreBuffer final : public CXObject {
public:
    /// Copies the descriptor. Returns null if `buffer` is null.
    static CXRef<DXRCoreBuffer> initWithBuffer(const AudioBuffer* buffer);

    const AudioBuffer& buffer() const noexcept { return _buffer; }
    uint32_t channelCount() const noexcept { return _buffer.numberChannels; }
    uint32_t length() const noexcept { return _buffer.dataByteSize; } ///< bytes
    void* bytes() const noexcept { return _buffer.data; }             ///< null if there is no data

    /// Returns true if channel count, length and pointer are equal.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRCoreBuffer(const AudioBuffer& buffer) noexcept : _buffer(buffer) {}
    ~DXRCoreBuffer() override;

    const AudioBuffer _buffer;
};
