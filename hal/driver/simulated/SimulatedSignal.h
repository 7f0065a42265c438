#pragma once

#include "CXBlock.h"

#include <cstdint>
#include <string>

/// What a simulated device's microphones hear: fills `samples`, frameCount x channelCount interleaved floats,
/// the first at the device's sample time `firstFrame`. Called on the device's IO thread, before its
/// callbacks.
using SimulatedSource = CXBlock<void(uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount,
                                     double sampleRate, float* samples)>;
/// What becomes of what a simulated device plays: the same, to read. Called after the callbacks. Null samples
/// mark the end: the device has stopped, and what was kept back should be written out.
using SimulatedSink = CXBlock<void(uint64_t firstFrame, uint32_t frameCount, uint32_t channelCount,
                                   double sampleRate, const float* samples)>;

/// A sine of `frequency` Hz and peak `amplitude` on every channel, continuous in sample time.
DXR_EXPORT SimulatedSource simulatedTone(double frequency, float amplitude = 0.5F);
/// Frame k is (k modulo 2^24) / 2^24 on every channel: every frame tells its own sample time, exactly.
DXR_EXPORT SimulatedSource simulatedRamp();
/// The frames of a sound file, from its start, again and again. Channels beyond the file's are silent; the
/// rate is not converted. Reads the whole file now, off the IO thread. An empty source, and the reason in
/// `error`, when the file cannot be read or holds no frames.
DXR_EXPORT SimulatedSource simulatedFileSource(const std::string& path, std::string* error = nullptr);
/// Writes what it is given to a 32-bit float WAV file, in the background. An empty sink, and the reason in
/// `error`, when the file cannot be made; when it can later not be written (a full disk), one log line says
/// so and the rest is dropped.
DXR_EXPORT SimulatedSink simulatedFileSink(const std::string& path, std::string* error = nullptr);
