#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#define FAKED_EXPORT __attribute__((visibility("default")))

/// Sample formats, as the kernel numbers them.
enum class FakedFormat : unsigned { S16 = 2, S24 = 6, S32 = 10, Float = 14, S24Packed = 32 };

/// What can happen to a card. The first three do not last.
enum class FakedFault {
    Overload,       ///< what runs stops, as if the program had been late
    Pause,          ///< what runs stands still until it is stopped
    InterruptWaits, ///< a signal ends the next waits for its PCMs
    Suspend,
    Stuck,   ///< its clock stands still and nothing is interrupted
    Busy,    ///< another program has all of its PCMs open
    NoRights ///< this process may not open it
};

/// A sound card as it is plugged in. Its clock is its own; what a PCM plays comes back in its capture at the same frame.
/// Its controls are, in this order from number 1: Master Playback Volume (64 steps of 1 dB), Master Playback Switch,
/// Capture Volume, Capture Switch, Capture Source (Mic, Line), Headphone Jack.
struct FakedCardOptions {
    std::string name = "Faked Card", longName = "Faked Card at nowhere", components = {};
    unsigned pcmCount = 1;
    unsigned playback = 2, capture = 2; ///< channels of each PCM; 0: no such direction
    std::vector<unsigned> rates{44100, 48000, 96000};
    std::vector<FakedFormat> formats{FakedFormat::S16, FakedFormat::S32, FakedFormat::S24Packed};
    /// Of its first control, and the third.
    std::array<const char*, 2> volumeNames{"Master Playback Volume", "Capture Volume"};
    bool isBusy = false;                        ///< from the start
    unsigned minPeriod = 16, maxBuffer = 65536; ///< frames
    double partsPerMillion = 0.0;               ///< how much faster than nominal
    unsigned granularity = 1;                   ///< frames by which its position moves
    bool isElastic = true;                      ///< its time waits for a late program, instead of an overload
    bool mapsStatus = true;                     ///< false: positions are asked for, as on some processors
    bool mapsSamples = true;                    ///< false: samples go by read and write alone
    bool hasStamps = true;                      ///< false: its time stamps are 0
    bool canLink = true;
    bool isHostile = false; ///< texts of any bytes, lists without an end, controls that cannot be
};

/// Sound cards in place of the kernel's, for this process. The unmodified alsa-lib runs above them: a program linked with
/// this library, before the C library, gets them from open(), ioctl(), mmap(), poll(), read(), close() and
/// inotify_add_watch() wherever it names /dev/snd.
/// Threads: any.
class FAKED_EXPORT FakedCards {
public:
    static int plug(const FakedCardOptions& options); ///< Returns the card's number.
    static void unplug(int card);
    static void unplugAll();
    static void rename(int card, const std::string& name); ///< as a rule of udev might
    /// What lasts until it is ended is ended by false.
    static void set(int card, FakedFault fault, bool isThere = true);
    /// As another program would.
    static void setControl(int card, unsigned number, long left, long right);
    static long control(int card, unsigned number, unsigned index = 0);
    static bool isOpen(int card); ///< any PCM, by this process
    static uint64_t ioctlCount();
};
