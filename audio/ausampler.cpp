#include "ausampler.h"

#include "CXErrorAdditions.h"
#include "DenormalFlush.h"
#include "InstructionSet.h"
#include "SamplerKernels.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numbers>

namespace {

constexpr uint32_t maximumGroup = SamplerFilter::maximumChannels;
constexpr uint32_t historyLength = 4;
constexpr uint32_t windowRows = 256; // input rows copied at a time
constexpr ptrdiff_t widestRow = 256; // bytes; wider input is copied instead of being used in place

/// The location of one channel's samples.
struct Channel {
    std::byte* base;
    ptrdiff_t stride; // bytes

    float* at(uint32_t frame) const noexcept
    {
        return reinterpret_cast<float*>(base + static_cast<ptrdiff_t>(frame) * stride);
    }
    float read(uint32_t frame) const noexcept
    {
        float sample;                                   // NOLINT(cppcoreguidelines-init-variables)
        std::memcpy(&sample, at(frame), sizeof sample); // may be unaligned
        return sample;
    }
    void write(uint32_t frame, float sample) const noexcept
    {
        std::memcpy(at(frame), &sample, sizeof sample);
    }
};

/// The channels of one side of a call, in any of the three layouts.
class ChannelTable {
public:
    static ChannelTable interleaved(const float* frames, uint32_t channelCount) noexcept
    {
        return {Layout::Interleaved, frames, channelCount * sizeof(float)};
    }
    static ChannelTable noninterleaved(const void* pointers) noexcept
    {
        return {Layout::Noninterleaved, pointers, sizeof(float)};
    }
    static ChannelTable iovec(const ausampler_iovec* entries) noexcept
    {
        return {Layout::Entries, entries, 0};
    }

    Channel operator[](uint32_t channel) const noexcept
    {
        if (_layout == Layout::Interleaved)
            return _channel(static_cast<const float*>(_table) + channel, _stride);
        if (_layout == Layout::Noninterleaved)
            return _channel(static_cast<const float* const*>(_table)[channel], _stride);
        const ausampler_iovec& entry = static_cast<const ausampler_iovec*>(_table)[channel];
        return _channel(entry.base, entry.stride);
    }

    /// Returns true if `count` channels from `first` on are adjacent, so that one frame of them is a
    /// contiguous row.
    bool isAdjacent(uint32_t first, uint32_t count) const noexcept
    {
        if (_layout == Layout::Interleaved)
            return true;
        const Channel one = (*this)[first];
        for (uint32_t i = 1; i < count; ++i) {
            const Channel other = (*this)[first + i];
            if (other.stride != one.stride || other.base != one.base + i * sizeof(float))
                return false;
        }
        return true;
    }

private:
    enum class Layout { Interleaved, Noninterleaved, Entries };

    ChannelTable(Layout layout, const void* table, uint64_t stride) noexcept
        : _layout(layout), _table(table), _stride(stride)
    {}
    static Channel _channel(const void* base, uint64_t stride) noexcept
    {
        // Removing const is safe: inputs are only read. One type serves both sides.
        return {static_cast<std::byte*>(const_cast<void*>(base)), static_cast<ptrdiff_t>(stride)};
    }

    Layout _layout;
    const void* _table;
    uint64_t _stride;
};

/// Returns true if the rates can be converted: they and their ratios are positive and finite.
bool canConvert(double rateIn, double rateOut) noexcept
{
    const auto isPositive = [](double value) {
        return value > 0 && value <= std::numeric_limits<double>::max();
    };
    return isPositive(rateIn) && isPositive(rateOut) && isPositive(rateIn / rateOut) &&
           isPositive(rateOut / rateIn);
}

/// The number of frames on each side of a call, and the phase after it.
struct Move {
    uint32_t framesIn;
    uint32_t framesOut;
    double phase;
};

/// The input position of output frame 0: position 4 is the second input frame of the call, and positions
/// below it reach into the history.
double startPosition(double phase, double ratio) noexcept
{
    return 1 + (1 - phase) * ratio;
}

/// Truncates to a whole number in the range of uint32_t; NaN and values below 1 become 0.
uint32_t saturated(double count) noexcept
{
    if (!(count > 0))
        return 0;
    return count < 4294967295.0 ? static_cast<uint32_t>(count) : UINT32_MAX;
}

/// Returns how many input frames the output frames 0 … count - 1 need. While the last position still uses the
/// history, this is one frame more than the position requires. Reads and writes use the same rule, so the
/// stream stays continuous.
uint32_t framesNeeded(double phase, double ratio, uint32_t count) noexcept
{
    const double start = startPosition(phase, ratio);
    const double length = ratio * static_cast<double>(count - 1);
    const uint32_t last = saturated(start + length);
    if (last <= 3)
        return last + 1;
    return saturated(static_cast<double>(saturated(start - 1 + length)) + 1);
}

Move moveForRead(const ausampler& sampler, uint32_t framesOut, double rateIn, double rateOut) noexcept
{
    if (!canConvert(rateIn, rateOut))
        return {0, 0, sampler.phase};
    if (framesOut == 0 || rateIn == rateOut)
        return {framesOut, framesOut, sampler.phase};
    const uint32_t framesIn = framesNeeded(sampler.phase, rateIn / rateOut, framesOut);
    return {framesIn, framesOut,
            static_cast<double>(framesIn) * (rateOut / rateIn) + sampler.phase -
                static_cast<double>(framesOut)};
}

Move moveForWrite(const ausampler& sampler, uint32_t framesIn, double rateIn, double rateOut) noexcept
{
    if (!canConvert(rateIn, rateOut))
        return {0, 0, sampler.phase};
    if (framesIn == 0 || rateIn == rateOut)
        return {framesIn, framesIn, sampler.phase};
    const double ratio = rateIn / rateOut;
    const double limit = static_cast<double>(framesIn) * (rateOut / rateIn) + sampler.phase;
    uint32_t framesOut = saturated(limit);
    while (framesOut > 0 && framesNeeded(sampler.phase, ratio, framesOut) > framesIn)
        --framesOut;
    return {framesIn, framesOut, limit - static_cast<double>(framesOut)};
}

void updateCoefficients(ausampler& sampler, double ratio) noexcept
{
    const auto cutoff = static_cast<float>(ratio * 0.5);
    if (cutoff == sampler.lowpass_cutoff)
        return;
    sampler.lowpass_cutoff = cutoff;
    constexpr double q = 0.8;
    const double w0 = static_cast<double>(cutoff + cutoff) * std::numbers::pi;
    const double alpha = std::sin(w0) / (2 * q), cosine = std::cos(w0), a0 = 1 + alpha;
    sampler.b0 = static_cast<float>((1 - cosine) * 0.5 / a0);
    sampler.b1 = static_cast<float>((1 - cosine) / a0);
    sampler.b2 = sampler.b0;
    sampler.a1 = static_cast<float>(-2 * cosine / a0);
    sampler.a2 = static_cast<float>((1 - alpha) / a0);
}

/// Performs one call: computes the positions once for all channels, then processes the channels in groups
/// that fill a vector.
class Resampling {
public:
    Resampling(ausampler& sampler, const ChannelTable& input, const ChannelTable& output, const Move& move,
               double ratio) noexcept
        : _sampler(sampler), _input(input), _output(output), _framesIn(move.framesIn),
          _framesOut(move.framesOut), _ratio(ratio), _kernels(*instructionSet().sampler),
          _filters(ratio < static_cast<double>(0.95F))
    {}

    void run() noexcept
    {
        if (_filters)
            updateCoefficients(_sampler, _ratio);
        _locate();
        for (_first = 0; _first < _framesOut; _first += _count) {
            _count = std::min(_framesOut - _first, SamplerPositions::capacity);
            _positions.firstFrame = _first;
            _positions.found = 0;
            _forEachGroup([this](const Group& group) { _resample(group); });
        }
        if (_filters)
            _storeFilter();
        for (uint32_t channel = 0; channel < _sampler.channel_count; ++channel)
            _pushHistory(_sampler.channel_states[channel].history, _input[channel]);
    }

private:
    struct Group {
        uint32_t first, size, sizeLog2;
    };

    template <class Body> void _forEachGroup(const Body& body) const noexcept
    {
        uint32_t size = _kernels.maximumChannels;
        auto sizeLog2 = static_cast<uint32_t>(__builtin_ctz(size));
        for (uint32_t channel = 0; channel < _sampler.channel_count;) {
            while (size > _sampler.channel_count - channel) {
                size /= 2;
                --sizeLog2;
            }
            body(Group{channel, size, sizeLog2});
            channel += size;
        }
    }

    double _position(uint32_t frame) const noexcept
    {
        return _positions.start + _ratio * static_cast<double>(frame);
    }
    uint32_t _index(uint32_t frame) const noexcept { return saturated(_position(frame)); }

    /// Returns the first output frame whose position is after the last input frame. The counts should not
    /// allow one, but they are rounded differently from the positions, and rates may change without a reset.
    /// Such a position uses the last frame again and reads no other memory.
    uint32_t _firstPastInput() const noexcept
    {
        uint32_t frame = _framesOut;
        while (frame > 0 && _index(frame - 1) > std::max(_framesIn, historyLength - 1))
            --frame;
        return frame;
    }

    void _locate() noexcept
    {
        _positions.start = startPosition(_sampler.phase, _ratio);
        _positions.ratio = _ratio;
        if (_framesOut == 0)
            return;
        constexpr double farthest = 2147483647;
        _positions.fitsInt = _positions.start > -farthest && _position(_framesOut - 1) < farthest &&
                             _ratio * SamplerPositions::step < farthest - _position(_framesOut - 1);
        _pastInput = _firstPastInput();
    }

    void _resample(const Group& group) noexcept
    {
        if (_filters)
            _useFilter(group);
        const bool direct =
            _output.isAdjacent(group.first, group.size) &&
            _output[group.first].stride == static_cast<ptrdiff_t>(group.size * sizeof(float)) &&
            _isAligned(_output[group.first].base);
        _frames = direct ? _output[group.first].at(_first) : _tile;
        const uint32_t inside = _pastInput <= _first ? 0 : std::min(_pastInput - _first, _count);
        _resampleInput(group, inside);
        for (uint32_t i = inside; i < _count; ++i)
            _resamplePastInput(group, i);
        if (!direct)
            _scatter(group);
    }

    static bool _isAligned(const void* pointer) noexcept
    {
        return reinterpret_cast<uintptr_t>(pointer) % alignof(float) == 0;
    }

    /// Interpolates positions first … end - 1.
    void _interpolate(const Group& group, const SamplerWindow& window, uint32_t first, uint32_t end) noexcept
    {
        _kernels.interpolate[group.sizeLog2](window, _positions, first, end - first,
                                             _frames + size_t{first} * group.size,
                                             _filters ? &_filter : nullptr);
    }

    /// Returns a window whose rows from input frame `firstFrame` on are at `rows`, with the head in _head.
    SamplerWindow _windowAt(const void* rows, uint32_t firstFrame, ptrdiff_t rowBytes) const noexcept
    {
        return {static_cast<const std::byte*>(rows) -
                    (ptrdiff_t{firstFrame} + ptrdiff_t{historyLength}) * rowBytes,
                reinterpret_cast<const std::byte*>(_head), rowBytes};
    }

    /// Builds separate rows for positions that use the history. At index 3 the first sample is the third of
    /// the history, not the newest: kept for compatibility.
    void _fillHead(const Group& group, ptrdiff_t rowBytes) noexcept
    {
        const size_t row = static_cast<size_t>(rowBytes) / sizeof(float);
        for (uint32_t c = 0; c < group.size; ++c) {
            const float* const history = _sampler.channel_states[group.first + c].history;
            const Channel input = _input[group.first + c];
            float* const head = _head + c;
            for (uint32_t i = 0; i < historyLength; ++i)
                head[i * row] = history[i];
            head[6 * row] = history[2];
            for (uint32_t frame = 0; frame < 3; ++frame) {
                const float sample = input.read(std::min(frame, _framesIn - 1));
                head[(7 + frame) * row] = sample;
                if (frame < 2)
                    head[(4 + frame) * row] = sample;
            }
        }
    }

    void _resampleInput(const Group& group, uint32_t count) noexcept
    {
        const Channel input = _input[group.first];
        const auto dense = static_cast<ptrdiff_t>(group.size * sizeof(float));
        const bool inPlace = _input.isAdjacent(group.first, group.size) &&
                             (input.stride == dense ||
                              (group.size >= 4 && input.stride >= dense && input.stride <= widestRow &&
                               input.stride % static_cast<ptrdiff_t>(sizeof(float)) == 0));
        if (count > 0 && _index(_first) < historyLength)
            _fillHead(group, inPlace ? input.stride : dense);
        if (inPlace)
            return _interpolate(group, _windowAt(input.base, 0, input.stride), 0, count);
        for (uint32_t first = 0; first < count;) {
            const uint32_t firstIndex = std::max(_index(_first + first), historyLength);
            uint32_t end = count;
            if (_index(_first + count - 1) > firstIndex + (windowRows - 4))
                for (end = first + 1; _index(_first + end) <= firstIndex + (windowRows - 4);)
                    ++end;
            const uint32_t lastIndex = _index(_first + end - 1), firstFrame = firstIndex - historyLength;
            if (lastIndex >= historyLength)
                _gather(group, firstFrame, lastIndex - firstFrame);
            _interpolate(group, _windowAt(_window, firstFrame, dense), first, end);
            first = end;
        }
    }

    void _resamplePastInput(const Group& group, uint32_t i) noexcept
    {
        const uint32_t firstFrame = _index(_first + i) - historyLength;
        for (uint32_t c = 0; c < group.size; ++c) {
            const Channel input = _input[group.first + c];
            for (uint32_t row = 0; row < 4; ++row)
                _window[row * group.size + c] = input.read(std::min(firstFrame + row, _framesIn - 1));
        }
        const auto dense = static_cast<ptrdiff_t>(group.size * sizeof(float));
        _interpolate(group, _windowAt(_window, firstFrame, dense), i, i + 1);
    }

    /// Copies input frames into dense rows of the group.
    void _gather(const Group& group, uint32_t firstFrame, uint32_t count) noexcept
    {
        for (uint32_t c = 0; c < group.size; ++c) {
            const Channel input = _input[group.first + c];
            for (uint32_t row = 0; row < count; ++row)
                _window[row * group.size + c] = input.read(firstFrame + row);
        }
    }

    void _scatter(const Group& group) const noexcept
    {
        for (uint32_t c = 0; c < group.size; ++c) {
            const Channel output = _output[group.first + c];
            for (uint32_t i = 0; i < _count; ++i)
                output.write(_first + i, _tile[i * group.size + c]);
        }
    }

    /// Loads the filter's state for `group`; does nothing while consecutive blocks belong to the same group.
    void _useFilter(const Group& group) noexcept
    {
        if (_filtered.size > 0 && _filtered.first == group.first)
            return;
        _storeFilter();
        _filtered = group;
        _filter.b0 = _sampler.b0;
        _filter.b1 = _sampler.b1;
        _filter.a1 = _sampler.a1;
        _filter.a2 = _sampler.a2;
        for (uint32_t c = 0; c < group.size; ++c) {
            const ausampler_channel_state& state = _sampler.channel_states[group.first + c];
            (_filter.end() - size_t{2} * group.size)[c] = state.lp_x2;
            (_filter.end() - group.size)[c] = state.lp_x1;
            _filter.y1[c] = state.lp_y1;
            _filter.y2[c] = state.lp_y2;
        }
    }

    void _storeFilter() noexcept
    {
        for (uint32_t c = 0; c < _filtered.size; ++c) {
            ausampler_channel_state& state = _sampler.channel_states[_filtered.first + c];
            state.lp_x2 = (_filter.end() - size_t{2} * _filtered.size)[c];
            state.lp_x1 = (_filter.end() - _filtered.size)[c];
            state.lp_y1 = _filter.y1[c];
            state.lp_y2 = _filter.y2[c];
        }
    }

    void _pushHistory(float* history, const Channel& input) const noexcept
    {
        const uint32_t fresh = std::min(_framesIn, historyLength);
        std::memmove(history, history + fresh, (historyLength - fresh) * sizeof(float));
        for (uint32_t i = 0; i < fresh; ++i)
            history[historyLength - fresh + i] = input.read(_framesIn - fresh + i);
    }

    ausampler& _sampler;
    const ChannelTable& _input;
    const ChannelTable& _output;
    const uint32_t _framesIn, _framesOut;
    const double _ratio;
    const SamplerKernels& _kernels;
    const bool _filters;

    uint32_t _first = 0, _count = 0; // the current block of output frames
    uint32_t _pastInput = 0;         // the first output frame after the end of the input
    float* _frames = nullptr;        // of the current group, dense: in the output or in _tile
    Group _filtered{0, 0, 0};        // the group whose state _filter holds
    // Scratch memory, uninitialised because clearing it would cost as much as a small block.
    SamplerPositions _positions;
    SamplerFilter _filter;
    alignas(64) float _head[SamplerWindow::headRows * widestRow / sizeof(float)];
    alignas(64) float _window[windowRows * maximumGroup];
    alignas(64) float _tile[SamplerPositions::capacity * maximumGroup];
};

void perform(ausampler& sampler, const ChannelTable& input, const ChannelTable& output, const Move& move,
             double ratio) noexcept
{
    if (move.framesIn == 0)
        return;
    if (sampler.channel_count > 0) {
        for (uint32_t channel = 0; channel < sampler.channel_count; ++channel)
            CX_ASSERT(move.framesOut == 0 || input[channel].base != output[channel].base);
        const DenormalFlush flush;
        Resampling(sampler, input, output, move, ratio).run();
    }
    sampler.phase = move.phase;
}

uint32_t read(ausampler* sampler, const ChannelTable& input, const ChannelTable& output, uint32_t framesOut,
              double rateIn, double rateOut) noexcept
{
    const Move move = moveForRead(*sampler, framesOut, rateIn, rateOut);
    perform(*sampler, input, output, move, rateIn / rateOut);
    return move.framesOut;
}

uint32_t write(ausampler* sampler, const ChannelTable& input, const ChannelTable& output, uint32_t framesIn,
               double rateIn, double rateOut) noexcept
{
    const Move move = moveForWrite(*sampler, framesIn, rateIn, rateOut);
    perform(*sampler, input, output, move, rateIn / rateOut);
    return move.framesIn;
}

} // namespace

ausampler* ausampler_create(uint32_t channel_count) noexcept
{
    void* const memory = std::calloc(1, sizeof(ausampler) + channel_count * sizeof(ausampler_channel_state));
    if (!memory)
        return nullptr;
    auto* const sampler = static_cast<ausampler*>(memory);
    sampler->channel_count = channel_count;
    sampler->channel_states = reinterpret_cast<ausampler_channel_state*>(sampler + 1);
    sampler->phase = 1;
    return sampler;
}

void ausampler_reset(ausampler* sampler) noexcept
{
    std::memset(sampler->channel_states, 0, sampler->channel_count * sizeof(ausampler_channel_state));
    sampler->phase = 1;
    sampler->lowpass_cutoff = 0;
    sampler->b0 = 0;
}

void ausampler_destroy(ausampler* sampler) noexcept
{
    std::free(sampler);
}

uint32_t ausampler_read_frames_in(const ausampler* sampler, uint32_t out_frames, double rate_in,
                                  double rate_out) noexcept
{
    return moveForRead(*sampler, out_frames, rate_in, rate_out).framesIn;
}

uint32_t ausampler_read_interleaved(ausampler* sampler, const float* input, float* output,
                                    uint32_t out_frames, double rate_in, double rate_out) noexcept
{
    return read(sampler, ChannelTable::interleaved(input, sampler->channel_count),
                ChannelTable::interleaved(output, sampler->channel_count), out_frames, rate_in, rate_out);
}

uint32_t ausampler_read_noninterleaved(ausampler* sampler, const float* const* input, float* const* output,
                                       uint32_t out_frames, double rate_in, double rate_out) noexcept
{
    return read(sampler, ChannelTable::noninterleaved(input), ChannelTable::noninterleaved(output),
                out_frames, rate_in, rate_out);
}

uint32_t ausampler_read_iovec(ausampler* sampler, const ausampler_iovec* input, const ausampler_iovec* output,
                              uint32_t out_frames, double rate_in, double rate_out) noexcept
{
    return read(sampler, ChannelTable::iovec(input), ChannelTable::iovec(output), out_frames, rate_in,
                rate_out);
}

uint32_t ausampler_write_frames_out(const ausampler* sampler, uint32_t in_frames, double rate_in,
                                    double rate_out) noexcept
{
    return moveForWrite(*sampler, in_frames, rate_in, rate_out).framesOut;
}

uint32_t ausampler_write_interleaved(ausampler* sampler, const float* input, float* output,
                                     uint32_t in_frames, double rate_in, double rate_out) noexcept
{
    return write(sampler, ChannelTable::interleaved(input, sampler->channel_count),
                 ChannelTable::interleaved(output, sampler->channel_count), in_frames, rate_in, rate_out);
}

uint32_t ausampler_write_noninterleaved(ausampler* sampler, const float* const* input, float* const* output,
                                        uint32_t in_frames, double rate_in, double rate_out) noexcept
{
    return write(sampler, ChannelTable::noninterleaved(input), ChannelTable::noninterleaved(output),
                 in_frames, rate_in, rate_out);
}

uint32_t ausampler_write_iovec(ausampler* sampler, const ausampler_iovec* input,
                               const ausampler_iovec* output, uint32_t in_frames, double rate_in,
                               double rate_out) noexcept
{
    return write(sampler, ChannelTable::iovec(input), ChannelTable::iovec(output), in_frames, rate_in,
                 rate_out);
}
