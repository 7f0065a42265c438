#pragma once

#include "FakedCards.h"

#include <array>
#include <ctime>
#include <sound/asound.h>
#include <sys/ioctl.h>
#include <utility>

/// The kernel's errors are negative, its time is in nanoseconds of the monotonic clock.
int64_t fakedNow();
timespec fakedTime(int64_t nanoseconds);

/// One card: its clock, its controls, and the wire from each PCM's playback to its capture.
/// Threads: the kernel's lock is held.
class FakedCard {
public:
    FakedCard(int number, const FakedCardOptions& options);

    const int number;
    FakedCardOptions options;
    unsigned interruptedWaits = 0; ///< to come
    bool isGone = false;
    void setFault(FakedFault fault, bool isThere);
    bool has(FakedFault fault) const { return _faults[static_cast<size_t>(fault)]; }
    /// Whether its clock moves nothing.
    bool stands() const { return isGone || has(FakedFault::Suspend) || has(FakedFault::Stuck); }

    // -- The clock, in frames
    double frameAt(int64_t nanoseconds) const;
    int64_t timeOf(double frame) const;
    void setRate(unsigned rate);
    /// Its time is `frame` now.
    void holdAt(double frame, int64_t nanoseconds);

    // -- The wire. A frame is a sample of at most 4 bytes, in the upper bytes of 32 bits, for each channel.
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
        int minDecibels; ///< hundredths; 0: not known
        std::array<long, 2> value;
    };
    std::vector<Control> controls;
    /// What an ioctl of the control device does; `changed` becomes the number of a control whose value it changed.
    int ioctl(unsigned long request, void* argument, unsigned& changed);
    void name(unsigned control, snd_ctl_elem_id& id) const;
    void describe(snd_pcm_info& info, unsigned pcm, bool isCapture) const;

private:
    struct Wire {
        std::vector<int32_t> samples;
        std::vector<int64_t> frames; ///< which one is at each place
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
