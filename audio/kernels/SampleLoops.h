#pragma once

#include "LaneOperations.h"
#include "Lanes.h"
#include "SampleKernels.h"

// The implementation of SampleKernels for any vector width. Lanes.h explains the unnamed namespace.

namespace {

template <int count> inline Shorts<count> loadShorts(const int16_t* from)
{
    Shorts<count> shorts;
    std::memcpy(&shorts, from, sizeof shorts);
    return shorts;
}

template <int count> inline Lanes<count> clamped(Lanes<count> x, float low, float high)
{
    return notBelow<count>(allLanes<count>(low), notAbove<count>(allLanes<count>(high), x));
}

/// Scales by 32768 below zero and by 32767 above, adds half a step away from zero and truncates. NaN gives 0.
/// The upper limit is applied here; values that are too low stay too low in the result.
template <int count> inline Ints<count> rounded(Lanes<count> x)
{
    x = loadedOnce<count>(x);
    // On both sides of zero, the smaller product is the one with the right scale, so the sign need not be
    // tested.
    const Lanes<count> scaled =
        notAbove<count>(allLanes<count>(32767.0F), notAbove<count>(x * 32768.0F, x * 32767.0F));
    const Ints<count> half = (reinterpret_cast<Ints<count>>(x) & INT32_MIN) | 0x3F000000;
    return cut<count>(scaled + reinterpret_cast<Lanes<count>>(half), x);
}

/// Rounds the next two vectors, which fill one vector of 16-bit samples.
template <int count> inline Shorts<2 * count> roundedShorts(const float* from)
{
    return packed<count>(rounded<count>(loadLanes<count>(from)),
                         rounded<count>(loadLanes<count>(from + count)));
}

template <int count> inline Lanes<count> widened(Shorts<count> v)
{
    // Here the greater product is the one with the right scale.
    const Lanes<count> numbers = __builtin_convertvector(toInts<count>(v), Lanes<count>);
    return notBelow<count>(numbers * 3.0517578e-5F, numbers * 3.051851e-5F);
}

/// Calls `step` for every whole vector of `count` samples, and once for the remaining samples, copied to full
/// vectors and back.
template <int width, class From, class To, class Step>
inline void forEachVector(const From* from, To* to, size_t count, const Step& step)
{
    constexpr size_t next = width;
    size_t i = 0;
    // Unrolled, because the loop would add a quarter to the cost of a short step.
    for (; i + 4 * next <= count; i += 4 * next) {
        step(from + i, to + i);
        step(from + i + next, to + i + next);
        step(from + i + 2 * next, to + i + 2 * next);
        step(from + i + 3 * next, to + i + 3 * next);
    }
    for (; i + width <= count; i += width)
        step(from + i, to + i);
    if (i == count)
        return;
    From lastFrom[width] = {};
    To lastTo[width] = {};
    std::memcpy(lastFrom, from + i, (count - i) * sizeof(From));
    std::memcpy(lastTo, to + i, (count - i) * sizeof(To));
    step(lastFrom, lastTo);
    std::memcpy(to + i, lastTo, (count - i) * sizeof(To));
}

template <int width> void mix(const float* from, float* to, size_t count)
{
    forEachVector<width>(from, to, count, [](const float* a, float* b) {
        storeLanes<width>(b, clamped<width>(loadLanes<width>(a) + loadLanes<width>(b), -1, 1));
    });
}

template <int width> void toInt16(const float* from, int16_t* to, size_t count)
{
    forEachVector<2 * width>(from, to, count, [](const float* a, int16_t* b) {
        const Shorts<2 * width> shorts = roundedShorts<width>(a);
        std::memcpy(b, &shorts, sizeof shorts);
    });
}

template <int width> void fromInt16(const int16_t* from, float* to, size_t count)
{
    forEachVector<width>(from, to, count, [](const int16_t* a, float* b) {
        storeLanes<width>(b, widened<width>(loadShorts<width>(a)));
    });
}

template <int width> void mixToInt16(const float* from, int16_t* to, size_t count)
{
    forEachVector<2 * width>(from, to, count, [](const float* a, int16_t* b) {
        const Shorts<2 * width> shorts =
            saturatedSum<2 * width>(roundedShorts<width>(a), loadShorts<2 * width>(b));
        std::memcpy(b, &shorts, sizeof shorts);
    });
}

template <int width> void mixFromInt16(const int16_t* from, float* to, size_t count)
{
    forEachVector<width>(from, to, count, [](const int16_t* a, float* b) {
        storeLanes<width>(b,
                          clamped<width>(widened<width>(loadShorts<width>(a)) + loadLanes<width>(b), -1, 1));
    });
}

/// Lanes first, first + step, … of `a` and `b` concatenated.
template <int width, int first, int step> inline Lanes<width> everyOther(Lanes<width> a, Lanes<width> b)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<width>(__builtin_shufflevector(a, b, (first + step * lane)...));
    }
    (std::make_integer_sequence<int, width>());
}

/// Alternating lanes of `a` and `b`, beginning with lane `first`.
template <int width, int first> inline Lanes<width> inTurn(Lanes<width> a, Lanes<width> b)
{
    return [&]<int... lane>(std::integer_sequence<int, lane...>)
    {
        return Lanes<width>(__builtin_shufflevector(a, b, (first + lane / 2 + lane % 2 * width)...));
    }
    (std::make_integer_sequence<int, width>());
}

// Interleaving the first half of all lanes with the second half rotates the bits of each lane's index by one.
// Repeated once per bit of the channel number, it turns channels of samples into frames.
template <int width, int channels>
uint32_t interleaveVectors(const float* const* from, float* to, uint32_t frameCount)
{
    uint32_t frame = 0;
    for (; frame + width <= frameCount; frame += width, to += ptrdiff_t{width} * channels) {
        Lanes<width> lanes[channels], riffled[channels];
        for (int c = 0; c < channels; ++c)
            lanes[c] = loadLanes<width>(from[c] + frame);
        for (int bit = 1; bit < channels; bit *= 2) {
            for (int c = 0; c < channels / 2; ++c) {
                riffled[2 * c] = inTurn<width, 0>(lanes[c], lanes[c + channels / 2]);
                riffled[2 * c + 1] = inTurn<width, width / 2>(lanes[c], lanes[c + channels / 2]);
            }
            std::memcpy(lanes, riffled, sizeof lanes);
        }
        for (int c = 0; c < channels; ++c)
            storeLanes<width>(to + ptrdiff_t{c} * width, lanes[c]);
    }
    return frame;
}

template <int width, int channels>
uint32_t deinterleaveVectors(const float* from, float* const* to, uint32_t frameCount)
{
    uint32_t frame = 0;
    for (; frame + width <= frameCount; frame += width, from += ptrdiff_t{width} * channels) {
        Lanes<width> lanes[channels], sorted[channels];
        for (int c = 0; c < channels; ++c)
            lanes[c] = loadLanes<width>(from + ptrdiff_t{c} * width);
        for (int bit = 1; bit < channels; bit *= 2) {
            for (int c = 0; c < channels / 2; ++c) {
                sorted[c] = everyOther<width, 0, 2>(lanes[2 * c], lanes[2 * c + 1]);
                sorted[c + channels / 2] = everyOther<width, 1, 2>(lanes[2 * c], lanes[2 * c + 1]);
            }
            std::memcpy(lanes, sorted, sizeof lanes);
        }
        for (int c = 0; c < channels; ++c)
            storeLanes<width>(to[c] + frame, lanes[c]);
    }
    return frame;
}

template <int width>
void interleave(const float* const* from, float* to, uint32_t channelCount, uint32_t stride,
                uint32_t frameCount)
{
    uint32_t done = 0;
    if (stride == channelCount) {
        if (channelCount == 2)
            done = interleaveVectors<width, 2>(from, to, frameCount);
        else if (channelCount == 4)
            done = interleaveVectors<width, 4>(from, to, frameCount);
        else if (channelCount == 8)
            done = interleaveVectors<width, 8>(from, to, frameCount);
    }
    for (uint32_t c = 0; c < channelCount; ++c)
        for (uint32_t frame = done; frame < frameCount; ++frame)
            to[size_t{frame} * stride + c] = from[c][frame];
}

template <int width>
void deinterleave(const float* from, float* const* to, uint32_t channelCount, uint32_t stride,
                  uint32_t frameCount)
{
    uint32_t done = 0;
    if (stride == channelCount) {
        if (channelCount == 2)
            done = deinterleaveVectors<width, 2>(from, to, frameCount);
        else if (channelCount == 4)
            done = deinterleaveVectors<width, 4>(from, to, frameCount);
        else if (channelCount == 8)
            done = deinterleaveVectors<width, 8>(from, to, frameCount);
    }
    for (uint32_t c = 0; c < channelCount; ++c)
        for (uint32_t frame = done; frame < frameCount; ++frame)
            to[c][frame] = from[size_t{frame} * stride + c];
}

template <int width> constexpr SampleKernels sampleKernels()
{
    return {mix<width>,          toInt16<width>,    fromInt16<width>,   mixToInt16<width>,
            mixFromInt16<width>, interleave<width>, deinterleave<width>};
}

} // namespace
