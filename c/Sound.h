#pragma once

#include "DXRBuffer.h"

#include <atomic>

namespace dxr_c {

/// Frames in memory. Owned by its handle and by the blocks of runners.
class Sound final : public CXObject {
public:
    Sound(CXRef<DXRBuffer> made, bool repeats) : buffer(std::move(made)), _repeats(repeats) {}

    void perform(uint64_t sampleTime, DXRBuffer& cycle, bool isInput) noexcept CX_REALTIME;

    const CXRef<DXRBuffer> buffer;
    /// Its release publishes the frames before it to the reader of the position.
    std::atomic<uint64_t> position{0};

private:
    const bool _repeats;
};

} // namespace dxr_c
