#pragma once

#include "CXExport.h"
#include "CXRealtime.h"

#include <stdint.h>

// The sampler: converts a stream of float frames from one rate to another, block by block, with four-point
// third-order interpolation and, where the output rate is well above the input rate, a second-order low-pass
// at the input's Nyquist frequency. It buffers nothing: a call consumes all the frames it says it needs and
// produces all it computes. One sampler is driven in one direction only, by reads or by writes, because both
// carry the same phase and history.
//
// Delay: two input frames; where the low-pass runs, its own in addition, at low frequencies at most 0.4 input
// frames. Rates: Hz, finite and positive, their ratio too. Others convert nothing: the functions return 0 and
// change
//            nothing.
// Overlap: a call's output must not overlap its input, at equal rates neither: the result would depend on the
//            processor. Asserted where a channel's output begins where its input does.
// Min block: a read takes at least one input frame. Its block must be worth one, out_frames * rate_in /
// rate_out >= 1:
//            reads of less run ahead of the input, and what they produce does not stay bounded. Collect
//            output frames
//            until the block is long enough. Writes may be as short as one frame.
// Threads:   one thread at a time for each sampler.
// Real time: everything but ausampler_create and ausampler_destroy.
// Results are the same to the bit on every processor.

/// One channel's memory between calls.
typedef struct ausampler_channel_state {
    float history[4];   ///< the last four input samples, oldest first
    float lp_x2, lp_x1; ///< the filter's last two inputs: the one before the last, the last
    float lp_y1, lp_y2; ///< the filter's last two outputs: the last, the one before it
} ausampler_channel_state;

/// A sampler; the channel states follow it in the same allocation.
typedef struct ausampler {
    uint32_t channel_count;
    ausampler_channel_state* channel_states;
    double phase;             ///< position carried between calls, in output frames; 1 after creation
    float lowpass_cutoff;     ///< the one that the coefficients are for, over the input rate; 0 for none yet
    float b0, b1, b2, a1, a2; ///< the low-pass, divided by a0
} ausampler;

/// Where one channel lies: frame k is the float `stride` * k bytes after `base`.
typedef struct ausampler_iovec {
    void* base;
    uint64_t stride; ///< bytes; may be 0 or, in two's complement, negative
} ausampler_iovec;

DXR_BEGIN_C

/// A sampler at its start, for that many channels; 0 is allowed and only keeps time. The caller destroys it.
/// Null when there is no memory.
DXR_NODISCARD DXR_EXPORT ausampler* ausampler_create(uint32_t channel_count) DXR_NOEXCEPT;
/// Back to the start: silence in the history, phase 1. For a stream that begins again or changes its rates.
DXR_EXPORT void ausampler_reset(ausampler* sampler) DXR_NOEXCEPT CX_REALTIME;
/// Frees it; null is allowed.
DXR_EXPORT void ausampler_destroy(ausampler* sampler) DXR_NOEXCEPT;

/// How many input frames a read of `out_frames` would consume now.
DXR_NODISCARD DXR_EXPORT uint32_t ausampler_read_frames_in(const ausampler* sampler, uint32_t out_frames,
                                                           double rate_in, double rate_out) DXR_NOEXCEPT
    CX_REALTIME;
/// Produces `out_frames` frames from as many input frames as ausampler_read_frames_in says; nothing past them
/// is read. Returns `out_frames`. Interleaved: channel c of frame k is at [k * channel_count + c].
DXR_EXPORT uint32_t ausampler_read_interleaved(ausampler* sampler, const float* input, float* output,
                                               uint32_t out_frames, double rate_in,
                                               double rate_out) DXR_NOEXCEPT CX_REALTIME;
/// The same, with one array per channel.
DXR_EXPORT uint32_t ausampler_read_noninterleaved(ausampler* sampler, const float* const* input,
                                                  float* const* output, uint32_t out_frames, double rate_in,
                                                  double rate_out) DXR_NOEXCEPT CX_REALTIME;
/// The same, with every channel where its entry says.
DXR_EXPORT uint32_t ausampler_read_iovec(ausampler* sampler, const ausampler_iovec* input,
                                         const ausampler_iovec* output, uint32_t out_frames, double rate_in,
                                         double rate_out) DXR_NOEXCEPT CX_REALTIME;

/// How many output frames a write of `in_frames` would produce now.
DXR_NODISCARD DXR_EXPORT uint32_t ausampler_write_frames_out(const ausampler* sampler, uint32_t in_frames,
                                                             double rate_in, double rate_out) DXR_NOEXCEPT
    CX_REALTIME;
/// Consumes `in_frames` frames and produces as many as ausampler_write_frames_out says. Returns `in_frames`,
/// not the number produced. Layouts as for reading.
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
