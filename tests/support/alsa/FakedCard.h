#pragma once

#include "FakedCards.h"

#include <ctime>
#include <sound/asound.h>
#include <sys/ioctl.h>
#include <utility>

class FakedPcm;

/// The faked kernel's errors are negative errno values; its time is nanoseconds of CLOCK_MONOTONIC.
int64_t fakedNow();
timespec fakedTime(int64_t nanoseconds);

/// A card: its clock, its controls and its open PCMs.
/// Threads: any; the caller holds the kernel's lock.
class FakedCard {
public:
    FakedCard(int number, const FakedCardOptions& options);

    const int number;
    FakedCardOptions options;
    std::vector<FakedPcm*> pcms; ///< the open ones
    bool isGone = false;
    size_t controlOpens = 0;
    void setFault(FakedFault fault, bool isThere);
    bool has(FakedFault fault) const { return _faults[static_cast<size_t>(fault)]; }

    // -- The clock, in frames
    /// Plays and records the frames up to now.
    void update();
    double frame() const { return _frame; } ///< of the last update
    int64_t timeOf(double frame) const;
    void setRate(unsigned rate);

    // -- PCMs
    bool hasPcm(unsigned pcm, bool isCapture) const;
    /// Returns null if this process has not opened it.
    const FakedPcm* openPcm(unsigned pcm, bool isCapture) const;
    bool isInUse(unsigned pcm, bool isCapture) const;
    int describe(snd_pcm_info& info, unsigned pcm, bool isCapture) const;

    // -- Controls, numbered from 1
    struct Control {
        int interface;
        const char* name;
        int type;
        unsigned count;
        long max;
        int minDecibels; ///< hundredths of a dB; 0: unknown
        std::array<long, 2> value;
    };
    std::vector<Control> controls;
    /// Handles an ioctl of the control device. A write returns 1 if it changed the value.
    int ioctl(unsigned long request, void* argument);
    void name(unsigned control, snd_ctl_elem_id& id) const;

private:
    double _framesPerNanosecond() const { return 1e-9 * _rate * (1.0 + options.partsPerMillion * 1e-6); }
    void _describe(snd_ctl_card_info& info) const;
    void _describe(snd_ctl_elem_info& info) const;
    int _transfer(snd_ctl_elem_value& value, bool isWrite);

    std::array<bool, 6> _faults{}; // by FakedFault
    unsigned _rate = 48000;
    double _frame = 0.0;
    int64_t _time = fakedNow(); // of _frame
};
