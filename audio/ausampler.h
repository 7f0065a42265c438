#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stdint.h>

// The sampler: converts a stream of float frames from one sample rate to another, block by block. It uses
// four-point third-order interpolation and, if the output rate is well above the input rate, a second-order
// low-pass at the input's Nyquist frequency. It buffers nothing: a call consumes all the input frames that it
// needs and produces all the output frames that it computes. A sampler is used either for reads or for
// writes, not for both, because both share the same phase and history.
//
// Delay:     two input frames. The low-pass adds its own delay, at low frequencies at most 0.4 input frames.
// Rates:     Hz, finite and positive; their ratio too. For other rates the functions return 0 and have no
//            effect.
// Overlap:   a call's output must not overlap its input, also at equal rates, because the result would depend
//            on the processor. Asserts if a channel's output begins at the same address as its input.
// Min block: a read consumes at least one input frame, so its block must correspond to at least one:
//            out_frames * rate_in / rate_out >= 1. Shorter reads run ahead of the input, and their output is
//            not bounded. Collect output frames until the block is long enough. A write may be as short as
//            one frame.
// Threads:   one thread at a time for each sampler.
// Real time: everything except ausampler_create and ausampler_destroy.
// Results are bit-identical on every processor.

/// The state of one channel between calls.
typedef struct ausampler_channel_state {
    float history[4];   ///< the last four input samples, oldest first
    float lp_x2, lp_x1; ///< the filter's last two inputs: the one before the last, the last
    float lp_y1, lp_y2; ///< the filter's last two outputs: the last, the one before it
} ausampler_channel_state;

/// A sampler. The channel states follow it in the same allocation.
typedef struct ausampler {
    uint32_t channel_count;
    ausampler_channel_state* channel_states;
    double phase;             ///< the position carried over between calls, in output frames; initially 1
    float lowpass_cutoff;     ///< the coefficients' cutoff, relative to the input rate; 0 if not computed
    float b0, b1, b2, a1, a2; ///< the low-pass, divided by a0
} ausampler;

/// The location of one channel: frame k is the float at `base` + `stride` * k bytes.
typedef struct ausampler_iovec {
    void* base;
    uint64_t stride; ///< bytes; may be 0 or, in two's complement, negative
} ausampler_iovec;

DXR_BEGIN_C

/// Creates a sampler for `channel_count` channels; with 0 channels it only counts frames. The caller destroys
/// it. Returns null if memory cannot be allocated.
DXR_NODISCARD DXR_EXPORT ausampler* ausampler_create(uint32_t channel_count) DXR_NOEXCEPT;
/// Resets the sampler: silent history, phase 1. For a stream that restarts or changes its rates.
DXR_EXPORT void ausampler_reset(ausampler* sampler) DXR_NOEXCEPT CX_REALTIME;
/// Frees the sampler. Does nothing if it is null.
DXR_EXPORT void ausampler_destroy(ausampler* sampler) DXR_NOEXCEPT;

/// Returns how many input frames a read of `out_frames` would consume now.
DXR_NODISCARD DXR_EXPORT uint32_t ausampler_read_frames_in(const ausampler* sampler, uint32_t out_frames,
                                                           double rate_in, double rate_out) DXR_NOEXCEPT
    CX_REALTIME;
/// Produces `out_frames` frames. Reads exactly as many input frames as ausampler_read_frames_in returns.
/// Returns `out_frames`. Interleaved: channel c of frame k is at [k * channel_count + c].
DXR_EXPORT uint32_t ausampler_read_interleaved(ausampler* sampler, const float* input, float* output,
                                               uint32_t out_frames, double rate_in,
                                               double rate_out) DXR_NOEXCEPT CX_REALTIME;
/// The same with one array per channel.
DXR_EXPORT uint32_t ausampler_read_noninterleaved(ausampler* sampler, const float* const* input,
                                                  float* const* output, uint32_t out_frames, double rate_in,
                                                  double rate_out) DXR_NOEXCEPT CX_REALTIME;
/// The same with an entry for each channel that gives its location.
DXR_EXPORT uint32_t ausampler_read_iovec(ausampler* sampler, const ausampler_iovec* input,
                                         const ausampler_iovec* output, uint32_t out_frames, double rate_in,
                                         double rate_out) DXR_NOEXCEPT CX_REALTIME;

/// Returns how many output frames a write of `in_frames` would produce now.
DXR_NODISCARD DXR_EXPORT uint32_t ausampler_write_frames_out(const ausampler* sampler, uint32_t in_frames,
                                                             double rate_in, double rate_out) DXR_NOEXCEPT
    CX_REALTIME;
/// Consumes `in_frames` frames and produces as many as ausampler_write_frames_out returns. Returns
/// `in_frames`, not the number of frames produced. The layouts are the same as for reading.
DXR_EXPORT uint32_t ausampler_write_interleaved(ausampler* sampler, const float* input, float* output,
                                                uint32_t in_frames, double rate_in,
                                                double rate_out) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT uint32_t ausampler_write_noninterleaved(ausampler* sampler, const float* const* input,
                                                   float* const* output, uint32_t in_frames, double rate_in,
                                                   double rate_out) DXR_NOEXCEPT CX_REALTIME;
DXR_EXPORT uint32_t ausampler_write_iovec(ausampler* sampler, const ausampler_iovec* input,
                                          const ausampler_iovec* output, uint32_t in_frames, double rate_in,
                                          double rate_out) DXR_NOEXCEPT CX_REALTIME;

DXR_END_C
