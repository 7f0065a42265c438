#pragma once

#include "FakedCards.h"

#include <array>
#include <ctime>
#include <sound/asound.h>
#include <sys/ioctl.h>
#include <utility>

/// The faked kernel's errors are negative errno values; its time is nanoseconds of CLOCK_MONOTONIC.
int64_t fakedNow();
timespec fakedTime(int64_t nanoseconds);

/// A card: its clock, its controls, and for each PCM the wire from playback to capture.
/// Threads: any; the caller holds the kernel's lock.
class FakedCard {
public:
    FakedCard(int number, const FakedCardOptions& options);

    const int number;
    FakedCardOptions options;
    unsigned interruptedWaits = 0; ///< number of waits still to interrupt
    bool isGone = false;
    void setFault(FakedFault fault, bool isThere);
    bool has(FakedFault fault) const { return _faults[static_cast<size_t>(fault)]; }
    /// Whether the card processes no frames.
    bool stands() const { return isGone || has(FakedFault::Suspend) || has(FakedFault::Stuck); }

    // -- The clock, in frames
    double frameAt(int64_t nanoseconds) const;
    int64_t timeOf(double frame) const;
    void setRate(unsigned rate);
    /// Sets the clock to `frame` at this time.
    void holdAt(double frame, int64_t nanoseconds);

    // -- The wire. A frame has a sample of at most 4 bytes per channel, in the upper bytes of 32 bits.
    static constexpr size_t wireFrames = 1 << 16;
    void play(unsigned pcm, int64_t frame, const char* samples, unsigned channels, unsigned bytes);
    void record(unsigned pcm, int64_t frame, char* samples, unsigned channels, unsigned bytes) const;

    // -- Controls, numbered from 1
    struct Control {
        int interface;
        const char* name;
        int type;
        unsigned count;
        long max;
        bool isWritable;
        int minDecibels; ///< hundredths of a dB; 0: unknown
        std::array<long, 2> value;
    };
    std::vector<Control> controls;
    /// Handles an ioctl of the control device; sets `changed` to the number of a control whose value changed.
    int ioctl(unsigned long request, void* argument, unsigned& changed);
    void name(unsigned control, snd_ctl_elem_id& id) const;
    void describe(snd_pcm_info& info, unsigned pcm, bool isCapture) const;

private:
    struct Wire {
        std::vector<int32_t> samples;
        std::vector<int64_t> frames; ///< number of the frame at each position
    };

    unsigned _find(const snd_ctl_elem_id& id) const;
    void _describe(snd_ctl_elem_info& info, unsigned number) const;
    int _transfer(snd_ctl_elem_value& value, bool isWrite, unsigned& changed);
    void _describe(snd_ctl_card_info& info) const;
    template <size_t size> void _text(unsigned char (&to)[size], const std::string& from) const;

    std::array<bool, 7> _faults{}; // by FakedFault
    unsigned _rate = 48000, _wireChannels;
    double _originFrame = 0.0;
    int64_t _origin = fakedNow();
    std::vector<Wire> _wires;
};
