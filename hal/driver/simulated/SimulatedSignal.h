#pragma once

#include "CXBlock.h"

#include <cstdint>

/// The input of a simulated device: fills `samples` with frameCount x channelCount interleaved floats, of
/// which the first frame has the device's sample time `firstFrame`. Called on the device's IO thread, before
/// its callbacks.
using SimulatedSource = CXBlock<void(uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount,
                                     double sampleRate, float* samples)>;
/// Receives the output of a simulated device: the same arguments, to read. Called after the callbacks. Null
/// samples mean that the device has stopped.
using SimulatedSink = CXBlock<void(uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount,
                                   double sampleRate, const float* samples)>;

/// A sine of `frequency` Hz and peak `amplitude` on every channel, continuous in sample time.
DXR_EXPORT SimulatedSource simulatedTone(double frequency, float amplitude = 0.5F);
/// Frame k is (k modulo 2^24) / 2^24 on every channel: every frame states its own sample time exactly.
DXR_EXPORT SimulatedSource simulatedRamp();
