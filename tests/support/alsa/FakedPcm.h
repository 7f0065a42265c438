#pragma once

#include "FakedCard.h"

class FakedKernel;

/// One open direction of a PCM: the kernel's state machine and the ring buffer.
/// Threads: any; the caller holds the kernel's lock.
class FakedPcm {
public:
    /// `descriptor` is the program's end of a pipe and `peer` the other: the PCM is ready when the pipe is.
    FakedPcm(FakedCard& card, unsigned pcm, bool isCapture, int descriptor, int peer, FakedKernel& kernel);
    ~FakedPcm();
    FakedPcm(const FakedPcm&) = delete;
    FakedPcm& operator=(const FakedPcm&) = delete;

    FakedCard& card;
    const unsigned number;
    const bool isCapture;
    const int descriptor;
    unsigned link = 0; ///< group of linked PCMs; 0: not linked

    int ioctl(unsigned long request, void* argument);
    /// Returns the file to map and sets the offset in it; -1 if the program may not map it.
    int mapped(unsigned long offset, off_t& place) const;
    /// Advances to a time: plays or records the frames up to then.
    void advance(int64_t nanoseconds);
    bool runs() const;
    int state() const { return static_cast<int>(_status->state); }
    void setState(int state);
    /// Result of a read or write in the current state; 0: allowed.
    int stateError() const;
    /// Updates readiness after the program may have moved its position in the mapped page.
    void showReadiness();
    void stop(int state);
    /// The time at which the next period is complete, and the last frame before the ring is empty or full.
    int64_t nextInterrupt() const;
    double lastFrameBeforeOverload() const;

private:
    char* _samples(int64_t frame) const;
    snd_pcm_uframes_t _available() const;
    int _setParameters(snd_pcm_hw_params& parameters);
    int _prepare();
    int _start();
    int _synchronise(snd_pcm_sync_ptr& pointers);
    int _transfer(snd_xferi& transfer);
    void _setReady(bool isReady);

    FakedKernel& _kernel;
    const int _peer;
    int _file = -1;
    size_t _size = 0;
    char* _memory = nullptr;
    snd_pcm_mmap_status* _status = nullptr;
    snd_pcm_mmap_control* _control = nullptr;
    unsigned _channels = 0, _rate = 0, _bytes = 0;
    snd_pcm_uframes_t _period = 1, _buffer = 1, _boundary = 1, _stopThreshold = 0;
    bool _hasStamps = false, _isReady = false;
    int64_t _startFrame = 0, _done = 0;
};
