#pragma once

#include "LaneOperations.h"
#include "Lanes.h"
#include "SamplerKernels.h"

#include <algorithm>
#include <utility>

// The implementation of SamplerKernels for any vector width. Lanes.h explains the unnamed namespace.

namespace {

/// Fills a vector by repeating `length` floats.
template <int count, int length> inline Lanes<count> filledWith(const float* from)
{
    if constexpr (length == 1) {
        return allLanes<count>(*from);
    } else if constexpr (length == 2) {
        double pair = 0; // only moved
        std::memcpy(&pair, from, sizeof pair);
        WideLanes<count / 2> pairs;
        for (int i = 0; i < count / 2; ++i)
            pairs[i] = pair;
        return reinterpret_cast<Lanes<count>>(pairs);
    } else if constexpr (length == count) {
        return loadLanes<count>(from);
    } else {
        const Lanes<count / 2> half = filledWith<count / 2, length>(from);
        return joined<count / 2>(half, half);
    }
}

/// Each of the count / times floats at `from`, repeated `times` times.
template <int count, int times> inline Lanes<count> repeated(const float* from)
{
    const Lanes<count> all = filledWith<count, count / times>(from);
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<count>(__builtin_shufflevector(all, all, lane / times...));
    }
    (std::make_integer_sequence<int, count>());
}

/// The four samples around each position of a run: one vector for each of the four.
template <int width> struct Taps {
    Lanes<width> p0, p1, p2, p3;
};

/// Loads `length` floats from each of width / length rows.
template <int width, int length> inline Lanes<width> loadRows(const std::byte* const* rows, ptrdiff_t offset)
{
    if constexpr (width == length) {
        return loadLanes<width>(*rows + offset);
    } else {
        return joined<width / 2>(loadRows<width / 2, length>(rows, offset),
                                 loadRows<width / 2, length>(rows + width / 2 / length, offset));
    }
}

/// With two channels, the four samples of both fill eight lanes, which are loaded at once.
template <int width> inline Taps<width> loadPairedTaps(const std::byte* const* rows)
{
    // Even and odd rows of the first half, then of the second, so that transposing returns them in frame
    // order.
    constexpr int half = width / 4, each = half / 2;
    const std::byte* sorted[2 * half];
    for (int frame = 0; frame < 2 * half; ++frame)
        sorted[frame / half * half + frame % 2 * each + frame % half / 2] = rows[frame];
    const Lanes<width> a = loadRows<width, 8>(sorted, 0), b = loadRows<width, 8>(sorted + each, 0),
                       c = loadRows<width, 8>(sorted + 2 * each, 0),
                       d = loadRows<width, 8>(sorted + 3 * each, 0);
    const Lanes<width> ab02 = shuffledInFours<width, 0, 1, 4, 5>(a, b),
                       ab13 = shuffledInFours<width, 2, 3, 6, 7>(a, b),
                       cd02 = shuffledInFours<width, 0, 1, 4, 5>(c, d),
                       cd13 = shuffledInFours<width, 2, 3, 6, 7>(c, d);
    return {everyOtherFour<width, 0>(ab02, cd02), everyOtherFour<width, 0>(ab13, cd13),
            everyOtherFour<width, 1>(ab02, cd02), everyOtherFour<width, 1>(ab13, cd13)};
}

template <int width, int channels>
inline Taps<width> loadTaps(const std::byte* const* rows, ptrdiff_t rowBytes)
{
    constexpr int frames = width / channels;
    if constexpr (channels >= 4) {
        return {loadRows<width, channels>(rows, 0), loadRows<width, channels>(rows, rowBytes),
                loadRows<width, channels>(rows, 2 * rowBytes), loadRows<width, channels>(rows, 3 * rowBytes)};
    } else if constexpr (channels == 2 && width >= 8) {
        return loadPairedTaps<width>(rows);
    } else if constexpr (channels == 2) {
        const Lanes<width> a = loadLanes<4>(rows[0]), b = loadLanes<4>(rows[1]),
                           c = loadLanes<4>(rows[0] + 16), d = loadLanes<4>(rows[1] + 16);
        return {shuffledInFours<width, 0, 1, 4, 5>(a, b), shuffledInFours<width, 2, 3, 6, 7>(a, b),
                shuffledInFours<width, 0, 1, 4, 5>(c, d), shuffledInFours<width, 2, 3, 6, 7>(c, d)};
    } else {
        // Transposes four samples of each frame within groups of four. The frames are first sorted into four
        // groups, so that the result is in frame order.
        constexpr int each = frames / 4;
        const std::byte* sorted[frames];
        for (int frame = 0; frame < frames; ++frame)
            sorted[frame % 4 * each + frame / 4] = rows[frame];
        const Lanes<width> a = loadRows<width, 4>(sorted, 0), b = loadRows<width, 4>(sorted + each, 0),
                           c = loadRows<width, 4>(sorted + 2 * each, 0),
                           d = loadRows<width, 4>(sorted + 3 * each, 0);
        const Lanes<width> ab01 = shuffledInFours<width, 0, 4, 1, 5>(a, b),
                           ab23 = shuffledInFours<width, 2, 6, 3, 7>(a, b),
                           cd01 = shuffledInFours<width, 0, 4, 1, 5>(c, d),
                           cd23 = shuffledInFours<width, 2, 6, 3, 7>(c, d);
        return {
            shuffledInFours<width, 0, 1, 4, 5>(ab01, cd01), shuffledInFours<width, 2, 3, 6, 7>(ab01, cd01),
            shuffledInFours<width, 0, 1, 4, 5>(ab23, cd23), shuffledInFours<width, 2, 3, 6, 7>(ab23, cd23)};
    }
}

/// Do not change the order of operations: it determines the last bit of the result.
template <int width>
inline Lanes<width> interpolated(const Taps<width>& p, Lanes<width> t1, Lanes<width> t2, Lanes<width> t3)
{
    const Lanes<width> threeP1 = 3.0F * p.p1;
    const Lanes<width> d1 = -2.0F * p.p0 - threeP1 + 6.0F * p.p2 - p.p3;
    const Lanes<width> d2 = p.p0 - 2.0F * p.p1 + p.p2;
    const Lanes<width> d3 = threeP1 - p.p0 - 3.0F * p.p2 + p.p3;
    return p.p1 + t1 * d1 + t2 * d2 + t3 * d3;
}

/// Applies the low-pass to runs of width / channels frames. The terms that depend on the filter's inputs are
/// computed for a whole run at once; only the terms that depend on earlier outputs are computed frame by
/// frame.
template <int width, int channels> class FilterLoop {
public:
    static constexpr uint32_t frames = width / channels;

    using Fed = float[2][width];

    FilterLoop(const SamplerFilter& filter, Fed& fed)
        : _b0(allLanes<width>(filter.b0)), _b1(allLanes<width>(filter.b1)),
          _beforeLast(loadLanes<width>(filter.end() - ptrdiff_t{2} * width)),
          _last(loadLanes<width>(filter.end() - width)), _a1(allLanes<size>(filter.a1)),
          _a2(allLanes<size>(filter.a2)), _y1(loadLowLanes<channels>(filter.y1)),
          _y2(loadLowLanes<channels>(filter.y2)), _waiting(fed[0]), _next(fed[1])
    {}

    /// Takes a run and writes the filtered output of the previous run. This delay ensures that the
    /// frame-by-frame part of one run never waits for the input terms of the next, even on processors that
    /// look ahead only a few instructions.
    void run(Lanes<width> x, float* output)
    {
        storeLanes<width>(_next, _fromInputs(x));
        if (_output)
            _filter(_waiting, _output, frames);
        std::swap(_next, _waiting);
        _output = output;
        _beforeLast = _last;
        _last = x;
    }

    /// Finishes the previous run, then filters the first `count` frames of this one and writes them to
    /// `output`.
    void run(Lanes<width> x, float* output, uint32_t count)
    {
        finish();
        storeLanes<width>(_next, _fromInputs(x));
        _filter(_next, output, count);
        _keep(x, count);
    }

    void finish()
    {
        if (_output)
            _filter(_waiting, _output, frames);
        _output = nullptr;
    }

    void save(SamplerFilter& filter) const
    {
        storeLanes<width>(filter.end() - ptrdiff_t{2} * width, _beforeLast);
        storeLanes<width>(filter.end() - width, _last);
        storeLowLanes<channels>(filter.y1, _y1);
        storeLowLanes<channels>(filter.y2, _y2);
    }

private:
    static constexpr int size = std::max(channels, 4);
    using Vector = Lanes<size>;

    Lanes<width> _fromInputs(Lanes<width> x) const { return _b0 * (x + _before<2>(x)) + _b1 * _before<1>(x); }

    /// The input terms are read from memory, because the processor forwards recent stores at no cost and the
    /// frames then need no shuffling.
    void _filter(const float* fed, float* output, uint32_t count)
    {
        Vector y1 = _y1, y2 = _y2;
        for (uint32_t frame = 0; frame < count; ++frame, fed += channels, output += channels) {
            // Only the last product depends on the previous frame.
            const Vector y = loadLowLanes<channels>(fed) - _a2 * y2 - _a1 * y1;
            y2 = y1;
            y1 = y;
            storeLowLanes<channels>(output, y);
        }
        _y1 = y1;
        _y2 = y2;
    }

    /// The run delayed by `count` frames.
    template <int count> Lanes<width> _before(Lanes<width> x) const
    {
        if constexpr (count * channels > width)
            return _beforeLast;
        else
            return shiftedIn<width, count * channels>(_last, x);
    }

    void _keep(Lanes<width> x, uint32_t count)
    {
        if (count == frames) {
            _beforeLast = _last;
            _last = x;
        } else {
            float both[2 * width];
            storeLanes<width>(both, _last);
            storeLanes<width>(both + width, x);
            _last = loadLanes<width>(both + size_t{count} * channels);
        }
    }

    const Lanes<width> _b0, _b1;
    Lanes<width> _beforeLast, _last;
    const Vector _a1, _a2;
    Vector _y1, _y2;
    float* _output = nullptr; // output of the run not yet written; null if none
    float* _waiting;          // that run's input terms
    float* _next;             // memory for the next run's input terms
};

/// Replaces FilterLoop if there is no filter.
template <int width, int channels> struct NoFilter {
    void run(Lanes<width> x, float* output) { storeLanes<width>(output, x); }
    void run(Lanes<width> x, float* output, uint32_t count)
    {
        std::memcpy(output, &x, size_t{count} * channels * sizeof(float));
    }
};

/// Stores the indexes of the positions of the given frames. Returns the fractions of the positions.
template <int count>
inline Lanes<count> placed(const WideLanes<count>& numbers, double start, double ratio, uint32_t* index)
{
    const WideLanes<count> position = start + ratio * numbers;
    const Ints<count> whole = __builtin_convertvector(position, Ints<count>);
    const Ints<count> notNegative = whole < 0 ? Ints<count>{} : whole;
    std::memcpy(index, &notNegative, sizeof notNegative);
    return differences<count>(position, notNegative);
}

/// Computes the next `step` positions, `width` at a time.
template <int width> inline void findMore(SamplerPositions& positions)
{
    // Uses local copies, because the compiler must assume that the stores change the record.
    constexpr int part = width < 8 ? width : width / 2;
    const double start = positions.start, ratio = positions.ratio;
    const uint32_t begin = positions.found, end = begin + SamplerPositions::step;
    WideLanes<part> numbers;
    for (int i = 0; i < part; ++i)
        numbers[i] = i;
    numbers += static_cast<double>(positions.firstFrame) + begin;
    for (uint32_t i = begin; i < end; i += width, numbers += static_cast<double>(width)) {
        Lanes<width> t = {};
        if constexpr (part == width)
            t = placed<width>(numbers, start, ratio, positions.index + i);
        else
            t = joined<part>(
                placed<part>(numbers, start, ratio, positions.index + i),
                placed<part>(numbers + static_cast<double>(part), start, ratio, positions.index + i + part));
        storeLanes<width>(positions.t1 + i, t * 0.16666667F);
        storeLanes<width>(positions.t2 + i, t * t * 0.5F);
        storeLanes<width>(positions.t3 + i, t * t * t * 0.16666667F);
    }
    positions.found = end;
}

/// The same for positions that exceed 31 bits, which occur only with extreme lengths and ratios.
[[gnu::noinline]] inline void findMoreFarAway(SamplerPositions& positions)
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
            findMore<width>(positions);
        else
            findMoreFarAway(positions);
    }
}

/// Returns up to where positions are computed before the run that ends at `end`: one step ahead, so that runs
/// do not wait for them.
inline uint32_t ahead(uint32_t end)
{
    const uint32_t far = end + SamplerPositions::step;
    return far < SamplerPositions::capacity ? far : SamplerPositions::capacity;
}

/// Interpolates run by run, width / channels frames each.
template <int width, int channels> class Interpolation {
public:
    static constexpr uint32_t frames = width / channels;

    Interpolation(const SamplerWindow& window, SamplerPositions& positions)
        : _window(window), _positions(positions)
    {}

    template <class Filter> void run(uint32_t first, uint32_t count, float* output, Filter& filter)
    {
        const uint32_t end = first + count;
        while (first < end) {
            findUpTo<width>(_positions, first + 1);
            if (first + frames > end || _positions.index[first] < SamplerWindow::headLength) {
                const uint32_t available = end - first < frames ? end - first : frames;
                filter.run(_runAtAnEnd(first, available), output, available);
                first += available;
                output += size_t{available} * channels;
            } else {
                findUpTo<width>(_positions, ahead(first + frames));
                filter.run(_run(first), output);
                first += frames;
                output += width;
            }
        }
    }

private:
    ptrdiff_t _rowBytes() const
    {
        // A constant for one and two channels, so that the addresses become part of the load instructions.
        return channels < 4 ? static_cast<ptrdiff_t>(channels * sizeof(float)) : _window.rowBytes;
    }

    Lanes<width> _interpolated(const std::byte* const* rows, uint32_t first) const
    {
        return interpolated<width>(loadTaps<width, channels>(rows, _rowBytes()),
                                   repeated<width, channels>(_positions.t1 + first),
                                   repeated<width, channels>(_positions.t2 + first),
                                   repeated<width, channels>(_positions.t3 + first));
    }

    Lanes<width> _run(uint32_t first) const
    {
        const uint32_t* const index = _positions.index + first;
        const std::byte* rows[frames];
        for (uint32_t frame = 0; frame < frames; ++frame)
            rows[frame] = _window.rows + static_cast<ptrdiff_t>(index[frame]) * _rowBytes();
        return _interpolated(rows, first);
    }

    /// A run that uses the head or has only `available` frames. In the second case the last of them is
    /// repeated to fill the vector.
    __attribute__((noinline)) Lanes<width> _runAtAnEnd(uint32_t first, uint32_t available)
    {
        findUpTo<width>(_positions, first + frames);
        const std::byte* rows[frames];
        for (uint32_t frame = 0; frame < frames; ++frame)
            rows[frame] = _window.row(_positions.index[first + (frame < available ? frame : available - 1)]);
        return _interpolated(rows, first);
    }

    const SamplerWindow _window;
    SamplerPositions& _positions;
};

template <int width, int channels>
void interpolate(const SamplerWindow& window, SamplerPositions& positions, uint32_t first, uint32_t count,
                 float* output, SamplerFilter* filter)
{
    Interpolation<width, channels> interpolation(window, positions);
    if (filter) {
        alignas(sizeof(Lanes<width>)) typename FilterLoop<width, channels>::Fed fed;
        FilterLoop<width, channels> loop(*filter, fed);
        interpolation.run(first, count, output, loop);
        loop.finish();
        loop.save(*filter);
    } else {
        NoFilter<width, channels> none;
        interpolation.run(first, count, output, none);
    }
}

/// Sets all entries of SamplerKernels::interpolate that vectors of `width` floats support.
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
