#pragma once

#include "Lanes.h"
#include "SamplerKernels.h"

// The loops behind SamplerKernels, written once for any vector width. See Lanes.h for why all is unnamed.

namespace {

/// The samples before and around a run of positions, one vector each.
template <int width> struct Taps {
    Lanes<width> p0, p1, p2, p3;
};

/// `length` floats at each of width / length rows.
template <int width, int length> inline Lanes<width> loadRows(const std::byte* const* rows, ptrdiff_t offset)
{
    if constexpr (width == length) {
        return loadLanes<width>(*rows + offset);
    } else {
        return joined<width / 2>(loadRows<width / 2, length>(rows, offset),
                                 loadRows<width / 2, length>(rows + width / 2 / length, offset));
    }
}

template <int width, int channels>
inline Taps<width> loadTaps(const std::byte* const* rows, ptrdiff_t rowBytes)
{
    constexpr int frames = width / channels;
    if constexpr (channels >= 4) {
        return {loadRows<width, channels>(rows, 0), loadRows<width, channels>(rows, rowBytes),
                loadRows<width, channels>(rows, 2 * rowBytes), loadRows<width, channels>(rows, 3 * rowBytes)};
    } else {
        // A frame's taps lie together: load four floats of each frame and transpose within the fours. Sorting
        // the frames into `channels` ~ 4 / channels heaps first makes the result come out in frame order.
        constexpr int heaps = 4 / channels, each = frames / heaps;
        const std::byte* sorted[frames];
        for (int frame = 0; frame < frames; ++frame)
            sorted[frame % heaps * each + frame / heaps] = rows[frame];
        if constexpr (channels == 2) {
            const Lanes<width> a = loadRows<width, 4>(sorted, 0), b = loadRows<width, 4>(sorted + each, 0),
                               c = loadRows<width, 4>(sorted, 16), d = loadRows<width, 4>(sorted + each, 16);
            return {shuffledInFours<width, 0, 1, 4, 5>(a, b), shuffledInFours<width, 2, 3, 6, 7>(a, b),
                    shuffledInFours<width, 0, 1, 4, 5>(c, d), shuffledInFours<width, 2, 3, 6, 7>(c, d)};
        } else {
            const Lanes<width> a = loadRows<width, 4>(sorted, 0), b = loadRows<width, 4>(sorted + each, 0),
                               c = loadRows<width, 4>(sorted + 2 * each, 0),
                               d = loadRows<width, 4>(sorted + 3 * each, 0);
            const Lanes<width> ab01 = shuffledInFours<width, 0, 4, 1, 5>(a, b),
                               ab23 = shuffledInFours<width, 2, 6, 3, 7>(a, b),
                               cd01 = shuffledInFours<width, 0, 4, 1, 5>(c, d),
                               cd23 = shuffledInFours<width, 2, 6, 3, 7>(c, d);
            return {shuffledInFours<width, 0, 1, 4, 5>(ab01, cd01),
                    shuffledInFours<width, 2, 3, 6, 7>(ab01, cd01),
                    shuffledInFours<width, 0, 1, 4, 5>(ab23, cd23),
                    shuffledInFours<width, 2, 3, 6, 7>(ab23, cd23)};
        }
    }
}

/// The order of operations is part of the contract: it decides the last bit.
template <int width>
inline Lanes<width> interpolated(const Taps<width>& p, Lanes<width> t1, Lanes<width> t2, Lanes<width> t3)
{
    const Lanes<width> threeP1 = 3.0F * p.p1;
    const Lanes<width> d1 = -2.0F * p.p0 - threeP1 + 6.0F * p.p2 - p.p3;
    const Lanes<width> d2 = p.p0 - 2.0F * p.p1 + p.p2;
    const Lanes<width> d3 = threeP1 - p.p0 - 3.0F * p.p2 + p.p3;
    return p.p1 + t1 * d1 + t2 * d2 + t3 * d3;
}

/// The low-pass with its state in registers.
template <int channels> class FilterLoop {
public:
    /// The next run is then interpolated ahead of this one's filter, and does not queue behind its chain.
    static constexpr bool wantsNextRunEarly = channels > 1;

    explicit FilterLoop(const SamplerFilter& filter)
        : _b0(allLanes<size>(filter.b0)), _b1(allLanes<size>(filter.b1)), _a1(allLanes<size>(filter.a1)),
          _a2(allLanes<size>(filter.a2)), _x1(loadLowLanes<channels>(filter.x1)),
          _x2(loadLowLanes<channels>(filter.x2)), _y1(loadLowLanes<channels>(filter.y1)),
          _y2(loadLowLanes<channels>(filter.y2))
    {}

    /// Filters the frames of one vector and writes them to `output`.
    template <int width> void run(Lanes<width> frames, float* output)
    {
        [&]<int... frame>(std::integer_sequence<int, frame...>)
        {
            (_step(lanesFrom<width, channels, frame * channels>(frames), output + frame * channels), ...);
        }
        (std::make_integer_sequence<int, width / channels>());
    }

    /// Filters `count` frames in place.
    void run(float* frames, uint32_t count)
    {
        for (uint32_t frame = 0; frame < count; ++frame, frames += channels)
            _step(loadLowLanes<channels>(frames), frames);
    }

    void save(SamplerFilter& filter) const
    {
        storeLowLanes<channels>(filter.x1, _x1);
        storeLowLanes<channels>(filter.x2, _x2);
        storeLowLanes<channels>(filter.y1, _y1);
        storeLowLanes<channels>(filter.y2, _y2);
    }

private:
    static constexpr int size = channels < 4 ? 4 : channels;
    using Vector = Lanes<size>;

    void _step(Vector x, float* output)
    {
        // Only the last product waits for the frame before.
        const Vector y = _b0 * (x + _x2) + _b1 * _x1 - _a2 * _y2 - _a1 * _y1;
        _x2 = _x1;
        _x1 = x;
        _y2 = _y1;
        _y1 = y;
        storeLowLanes<channels>(output, y);
    }

    const Vector _b0, _b1, _a1, _a2;
    Vector _x1, _x2, _y1, _y2;
};

template <int count>
inline void setFractions(SamplerPositions& positions, uint32_t i, const WideLanes<count>& fractions)
{
    const Lanes<count> t = __builtin_convertvector(fractions, Lanes<count>);
    storeLanes<count>(positions.t1 + i, t * 0.16666667F);
    storeLanes<count>(positions.t2 + i, t * t * 0.5F);
    storeLanes<count>(positions.t3 + i, t * t * t * 0.16666667F);
}

/// The next step of positions, `count` at a time.
template <int count> inline void findMore(SamplerPositions& positions)
{
    // Everything in locals: what is stored might, for all the compiler knows, change the record.
    const double start = positions.start, ratio = positions.ratio;
    const uint32_t begin = positions.found;
    WideLanes<count> numbers;
    for (int i = 0; i < count; ++i)
        numbers[i] = i;
    numbers += static_cast<double>(positions.firstFrame) + begin;
    for (uint32_t i = begin; i < begin + SamplerPositions::step;
         i += count, numbers += static_cast<double>(count)) {
        const WideLanes<count> position = start + ratio * numbers;
        const Ints<count> whole = __builtin_convertvector(position, Ints<count>);
        const Ints<count> index = whole < 0 ? Ints<count>{} : whole;
        std::memcpy(positions.index + i, &index, sizeof index);
        setFractions<count>(positions, i, position - __builtin_convertvector(index, WideLanes<count>));
    }
    positions.found = begin + SamplerPositions::step;
}

/// The same for positions past 31 bits, which only absurd lengths and ratios have.
inline void findMoreFarAway(SamplerPositions& positions)
{
    for (uint32_t i = positions.found; i < positions.found + SamplerPositions::step; ++i) {
        const double position =
            positions.start + positions.ratio * (static_cast<double>(positions.firstFrame) + i);
        const double index = position > 0 ? (position < 4294967295.0 ? position : 4294967295.0) : 0;
        positions.index[i] = static_cast<uint32_t>(index);
        const float t = static_cast<float>(position - positions.index[i]);
        positions.t1[i] = t * 0.16666667F;
        positions.t2[i] = t * t * 0.5F;
        positions.t3[i] = t * t * t * 0.16666667F;
    }
    positions.found += SamplerPositions::step;
}

template <int width> inline void findUpTo(SamplerPositions& positions, uint32_t end)
{
    while (positions.found < end) {
        if (positions.fitsInt)
            findMore<(width < 8 ? 4 : width / 2)>(positions);
        else
            findMoreFarAway(positions);
    }
}

/// How far positions must be found before the run that ends at `end`: so far ahead that they have left the
/// processor's store queue when their turn comes, from which vectors cannot be put together.
inline uint32_t ahead(uint32_t end)
{
    const uint32_t far = end + 2 * SamplerPositions::step;
    return far < SamplerPositions::capacity ? far : SamplerPositions::capacity;
}

/// width / channels frames from positions[first] on, of which `available` are wanted; the others repeat the
/// last of those, to fill the vector.
template <int width, int channels>
inline Lanes<width> interpolatedRun(const std::byte* window, ptrdiff_t rowBytes,
                                    const SamplerPositions& positions, uint32_t first, uint32_t available)
{
    constexpr uint32_t frames = width / channels;
    const std::byte* rows[frames];
    for (uint32_t frame = 0; frame < frames; ++frame) {
        const uint32_t position = first + (frame < available ? frame : available - 1);
        rows[frame] = window + static_cast<ptrdiff_t>(positions.index[position]) * rowBytes;
    }
    return interpolated<width>(
        loadTaps<width, channels>(rows, rowBytes), repeated<width, channels>(positions.t1 + first),
        repeated<width, channels>(positions.t2 + first), repeated<width, channels>(positions.t3 + first));
}

/// What takes the place of a filter where there is none.
struct NoFilter {
    static constexpr bool wantsNextRunEarly = false;

    template <int width> void run(Lanes<width> frames, float* output) { storeLanes<width>(output, frames); }
    void run(float*, uint32_t) {}
};

/// Filtered run by run: while the filter's chain waits, the processor interpolates the next run.
template <int width, int channels, class Filter>
inline void interpolateRuns(const std::byte* window, ptrdiff_t rowBytes, SamplerPositions& positions,
                            uint32_t first, uint32_t count, float* output, Filter& filter)
{
    constexpr uint32_t frames = width / channels;
    if constexpr (channels < 4)
        rowBytes = channels * sizeof(float); // known, so that the addresses fold into the loads
    const uint32_t end = first + count;
    const auto runAt = [&](uint32_t frame) {
        findUpTo<width>(positions, ahead(frame + frames));
        return interpolatedRun<width, channels>(window, rowBytes, positions, frame, frames);
    };
    if (Filter::wantsNextRunEarly && first + frames <= end) {
        Lanes<width> run = runAt(first);
        for (first += frames; first + frames <= end; first += frames, output += width) {
            const Lanes<width> next = runAt(first);
            filter.template run<width>(run, output);
            run = next;
        }
        filter.template run<width>(run, output);
        output += width;
    } else {
        for (; first + frames <= end; first += frames, output += width)
            filter.template run<width>(runAt(first), output);
    }
    if (first < end) {
        findUpTo<width>(positions, ahead(end));
        float padded[width];
        storeLanes<width>(padded,
                          interpolatedRun<width, channels>(window, rowBytes, positions, first, end - first));
        filter.run(padded, end - first);
        std::memcpy(output, padded, (end - first) * channels * sizeof(float));
    }
}

template <int width, int channels>
void interpolate(const std::byte* window, ptrdiff_t rowBytes, SamplerPositions* positions, uint32_t first,
                 uint32_t count, float* output, SamplerFilter* filter)
{
    if (filter) {
        // Shorter runs wait less for each other where the filter takes as long as it does with few channels.
        constexpr int filteredWidth = width == 16 && (channels == 2 || channels == 4) ? 8 : width;
        FilterLoop<channels> loop(*filter);
        interpolateRuns<filteredWidth, channels>(window, rowBytes, *positions, first, count, output, loop);
        loop.save(*filter);
    } else {
        NoFilter none;
        interpolateRuns<width, channels>(window, rowBytes, *positions, first, count, output, none);
    }
}

/// Every entry of SamplerKernels::interpolate that vectors of `width` floats allow.
template <int width> constexpr SamplerKernels samplerKernels()
{
    SamplerKernels kernels{};
    kernels.maximumChannels = width;
    kernels.interpolate[0] = interpolate<width, 1>;
    kernels.interpolate[1] = interpolate<width, 2>;
    kernels.interpolate[2] = interpolate<width, 4>;
    if constexpr (width >= 8)
        kernels.interpolate[3] = interpolate<width, 8>;
    if constexpr (width >= 16)
        kernels.interpolate[4] = interpolate<width, 16>;
    return kernels;
}

} // namespace
