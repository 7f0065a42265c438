#pragma once

#include "FakedCard.h"

#include <memory>

/// One open direction of a PCM: the kernel's state machine and the ring buffer.
/// Threads: any; the caller holds the kernel's lock.
class FakedPcm {
public:
    /// `descriptor` is an event counter: readable, or for playback writable, while the PCM is ready.
    FakedPcm(std::shared_ptr<FakedCard> card, unsigned number, bool isCapture, int descriptor);
    ~FakedPcm();
    FakedPcm(const FakedPcm&) = delete;

    const std::shared_ptr<FakedCard> card;
    const unsigned number;
    const bool isCapture;
    const int descriptor;

    int ioctl(unsigned long request, void* argument);
    /// The file of the memory that programs map: a page of status, a page of the program's positions, the
    /// ring.
    int file() const { return _file; }
    static constexpr size_t page = 4096;
    /// Advances to the card's frame: plays or records the frames up to there.
    void advance(int64_t nanoseconds);
    bool runs() const { return _state() == SNDRV_PCM_STATE_RUNNING; }
    void setState(int state);
    /// Result of a read or write in the current state; 0: allowed.
    int stateError() const;
    /// Updates readiness after the program may have moved its position in the mapped page.
    void showReadiness();
    /// The time at which the next period is complete, and the last frame before the ring is empty or full.
    int64_t nextInterrupt() const;
    double lastFrameBeforeOverload() const;

private:
    int _state() const { return static_cast<int>(_status->state); }
    /// Calls `visit` with this PCM and with the one that is linked to it.
    void _forLinked(auto visit)
    {
        visit(*this);
        if (_linked)
            visit(*_linked);
    }
    char* _samples(int64_t frame) const;
    void _record(int64_t end);
    snd_pcm_uframes_t _available() const;
    int _refine(snd_pcm_hw_params& parameters) const;
    int _setParameters(snd_pcm_hw_params& parameters);
    int _prepare();
    int _start();
    void _stop(int state)
    {
        _forLinked([state](FakedPcm& each) { each.setState(state); });
    }
    int _link(int descriptor);
    int _transfer(snd_xferi& transfer);

    FakedPcm* _linked = nullptr;
    int _file = -1;
    size_t _size = 0;
    char* _memory = nullptr;
    snd_pcm_mmap_status* _status = nullptr;
    snd_pcm_mmap_control* _control = nullptr;
    unsigned _channels = 0, _bytes = 0;
    snd_pcm_uframes_t _period = 1, _buffer = 1, _stopThreshold = 0;
    int64_t _startFrame = 0, _done = 0;
};
