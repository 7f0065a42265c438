#pragma once

#include "Lanes.h"
#include "PolyphaseKernels.h"

// The implementation of PolyphaseKernels for any vector width. Lanes.h explains the unnamed namespace.

namespace {

constexpr int sumLanes = 16;
constexpr int usualTaps = 64; // a constant, so that a frame's coefficients stay in registers

/// The sum of all lanes, added in halves: lanes i and i + 8 first, then i and i + 4, and so on.
template <int count> inline float sumOfLanes(Lanes<count> lanes)
{
    if constexpr (count == 4) {
        const Lanes<4> pairs = lanes + Lanes<4>(__builtin_shufflevector(lanes, lanes, 2, 3, 0, 1));
        return pairs[0] + pairs[1];
    } else {
        constexpr int half = count / 2;
        return sumOfLanes<half>(lanesFrom<count, half, 0>(lanes) + lanesFrom<count, half, half>(lanes));
    }
}

template <int width> inline float sumOfParts(const Lanes<width> (&parts)[sumLanes / width])
{
    if constexpr (width == 16)
        return sumOfLanes<16>(parts[0]);
    else if constexpr (width == 8)
        return sumOfLanes<8>(parts[0] + parts[1]);
    else
        return sumOfLanes<4>((parts[0] + parts[2]) + (parts[1] + parts[3]));
}

/// Computes the `taps` coefficients of one position by interpolating between two rows.
template <int width>
inline void interpolateRow(const PolyphaseInput& input, const PolyphasePosition& position, uint32_t taps,
                           Lanes<width>* coefficients)
{
    const float* row = input.table + size_t{position.row} * taps;
    const Lanes<width> weight = allLanes<width>(position.weight);
    for (uint32_t vector = 0; vector < taps / width; ++vector) {
        const Lanes<width> here = loadLanes<width>(row + vector * width);
        const Lanes<width> next = loadLanes<width>(row + taps + vector * width);
        coefficients[vector] = here + weight * (next - here);
    }
}

template <int width>
inline float weighted(const float* samples, const Lanes<width>* coefficients, uint32_t taps)
{
    constexpr int parts = sumLanes / width;
    Lanes<width> sums[parts];
    for (int part = 0; part < parts; ++part)
        sums[part] = loadLanes<width>(samples + part * width) * coefficients[part];
    for (uint32_t vector = parts; vector < taps / width; vector += parts)
        for (int part = 0; part < parts; ++part) {
            const uint32_t at = vector + static_cast<uint32_t>(part);
            sums[part] += loadLanes<width>(samples + size_t{at} * width) * coefficients[at];
        }
    return sumOfParts<width>(sums);
}

template <int width, uint32_t fixedTaps>
void filterFrames(const PolyphaseInput& input, const PolyphasePosition* positions, uint32_t frameCount,
                  float* output, size_t stride)
{
    const uint32_t taps = fixedTaps > 0 ? fixedTaps : input.tapCount;
    Lanes<width> coefficients[(fixedTaps > 0 ? fixedTaps : PolyphaseInput::maximumTaps) / width];
    for (uint32_t frame = 0; frame < frameCount; ++frame, output += stride) {
        interpolateRow<width>(input, positions[frame], taps, coefficients);
        for (uint32_t channel = 0; channel < input.channelCount; ++channel)
            output[channel] =
                weighted<width>(input.channels[channel] + positions[frame].index, coefficients, taps);
    }
}

template <int width>
void filter(const PolyphaseInput& input, const PolyphasePosition* positions, uint32_t frameCount,
            float* output, size_t stride)
{
    if (input.tapCount == usualTaps)
        filterFrames<width, usualTaps>(input, positions, frameCount, output, stride);
    else
        filterFrames<width, 0>(input, positions, frameCount, output, stride);
}

template <int width> constexpr PolyphaseKernels polyphaseKernels()
{
    return {filter<width>};
}

} // namespace
