#include "FrameCopy.h"

#include "InstructionSet.h"
#include "SampleKernels.h"

#include <cstring>

namespace {

constexpr uint32_t maxPlanes = 8; // the kernels' maximum

/// A run of channels of a map that can be copied together: `count` channels from `first` on.
struct Run {
    enum class Kind { None, Silent, Stream, Planes };
    Kind kind = Kind::None;
    size_t first = 0;
    size_t count = 0;
    DXRChannelEntry entry{}; // the first channel's
};

/// Finds the runs of a map, in order: neighbouring channels of one stream, or arrays of single channels side
/// by side.
class Runs {
public:
    Runs(const DXRChannelEntry* entries, std::span<const uint32_t> map) noexcept
        : _entries(entries), _map(map)
    {}

    bool next(Run& run) noexcept
    {
        const size_t first = run.first + run.count;
        if (first >= _map.size())
            return false;
        run = {Run::Kind::None, first, 1, {}};
        if (_map[first] == 0)
            return true;
        run.entry = _entries[_map[first] - 1];
        run.kind = run.entry.samples ? Run::Kind::Stream : Run::Kind::Silent;
        if (run.kind == Run::Kind::Silent)
            return true;
        while (first + run.count < _map.size() && _isNeighbour(run, first + run.count))
            ++run.count;
        if (run.entry.stride != 1)
            return true;
        while (run.count < maxPlanes && first + run.count < _map.size() && _isPlane(first + run.count))
            ++run.count;
        if (run.count > 1)
            run.kind = Run::Kind::Planes;
        return true;
    }

    const DXRChannelEntry& entry(size_t channel) const noexcept { return _entries[_map[channel] - 1]; }

private:
    bool _isNeighbour(const Run& run, size_t channel) const noexcept
    {
        return _map[channel] != 0 && entry(channel).stride == run.entry.stride && run.entry.stride > 1 &&
               entry(channel).samples == run.entry.samples + run.count;
    }
    bool _isPlane(size_t channel) const noexcept
    {
        return _map[channel] != 0 && entry(channel).stride == 1 && entry(channel).samples;
    }

    const DXRChannelEntry* const _entries;
    const std::span<const uint32_t> _map;
};

template <size_t channels>
void moveFrames(const float* from, size_t fromStride, float* to, size_t toStride,
                uint32_t frameCount) noexcept
{
    const auto move = [&] {
        std::memcpy(to, from, channels * sizeof(float)); // a fixed size compiles to one or two moves
        from += fromStride;
        to += toStride;
    };
    for (uint32_t rest = frameCount % 8; rest > 0; --rest)
        move();
    for (uint32_t frame = frameCount / 8; frame > 0; --frame) {
        for (int i = 0; i < 8; ++i)
            move();
    }
}

/// Copies `channels` neighbouring channels from one stream to another.
void moveStream(const float* from, size_t fromStride, float* to, size_t toStride, size_t channels,
                uint32_t frameCount) noexcept
{
    if (fromStride == channels && toStride == channels) {
        std::memcpy(to, from, channels * frameCount * sizeof(float));
        return;
    }
    size_t channel = 0;
    const auto moveSome = [&]<size_t some>() {
        for (; channels - channel >= some; channel += some)
            moveFrames<some>(from + channel, fromStride, to + channel, toStride, frameCount);
    };
    moveSome.template operator()<8>();
    moveSome.template operator()<4>();
    moveSome.template operator()<2>();
    moveSome.template operator()<1>();
}

} // namespace

void copyEntriesToFrames(const DXRChannelEntry* entries, std::span<const uint32_t> map,
                         const FrameBlock& frames) noexcept
{
    Runs runs(entries, map);
    for (Run run; runs.next(run);) {
        float* const to = frames.samples + run.first;
        if (run.kind == Run::Kind::Silent) {
            const float silence = 0;
            moveStream(&silence, 0, to, frames.channelCount, 1, frames.frameCount);
        } else if (run.kind == Run::Kind::Stream) {
            moveStream(run.entry.samples, run.entry.stride, to, frames.channelCount, run.count,
                       frames.frameCount);
        } else if (run.kind == Run::Kind::Planes) {
            const float* planes[maxPlanes];
            for (size_t i = 0; i < run.count; ++i)
                planes[i] = runs.entry(run.first + i).samples;
            instructionSet().samples->interleave(planes, to, static_cast<uint32_t>(run.count),
                                                 frames.channelCount, frames.frameCount);
        }
    }
}

void copyFramesToEntries(const FrameBlock& frames, std::span<const uint32_t> map,
                         const DXRChannelEntry* entries) noexcept
{
    Runs runs(entries, map);
    for (Run run; runs.next(run);) {
        const float* const from = frames.samples + run.first;
        if (run.kind == Run::Kind::Stream) {
            moveStream(from, frames.channelCount, run.entry.samples, run.entry.stride, run.count,
                       frames.frameCount);
        } else if (run.kind == Run::Kind::Planes) {
            float* planes[maxPlanes];
            for (size_t i = 0; i < run.count; ++i)
                planes[i] = runs.entry(run.first + i).samples;
            instructionSet().samples->deinterleave(from, planes, static_cast<uint32_t>(run.count),
                                                   frames.channelCount, frames.frameCount);
        }
    }
}
