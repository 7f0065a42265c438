#pragma once

#include "FakedCard.h"

class FakedKernel;

/// One direction of a PCM that a program has open: the kernel's state machine, and the ring.
/// Threads: the kernel's lock is held.
class FakedPcm {
public:
    /// `descriptor` is the program's, of a pipe whose other end is `peer`: whether it can be read or written is whether the
    /// PCM is ready.
    FakedPcm(FakedCard& card, unsigned pcm, bool isCapture, int descriptor, int peer, FakedKernel& kernel);
    ~FakedPcm();
    FakedPcm(const FakedPcm&) = delete;
    FakedPcm& operator=(const FakedPcm&) = delete;

    FakedCard& card;
    const unsigned number;
    const bool isCapture;
    const int descriptor;
    unsigned link = 0; ///< of which group; 0: alone

    int ioctl(unsigned long request, void* argument);
    /// The file and the place in it that a program wants to map; -1 when it may not.
    int mapped(unsigned long offset, off_t& place) const;
    /// Moves the clock to a moment: plays and records what lies between.
    void advance(int64_t nanoseconds);
    bool runs() const;
    int state() const { return static_cast<int>(_status->state); }
    void setState(int state);
    /// What the state makes of a read or a write; 0: nothing.
    int stateError() const;
    /// As the program has moved its position in the mapped page.
    void showReadiness();
    void stop(int state);
    /// When the next period is complete; and the frame at which its ring will be empty or full, but for one.
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
