#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#define FAKED_EXPORT __attribute__((visibility("default")))

/// Faults of a card. The first is a single event; the others last until they are cleared.
enum class FakedFault {
    Overload, ///< running PCMs stop, as if the program had been late
    Suspend,
    Stuck,    ///< its clock stops
    Busy,     ///< all of its PCMs are open in another program
    NoRights, ///< this process lacks permission to open it
    NoMemory  ///< the kernel can allocate nothing for its control device
};

/// Configuration of a sound card. It has a separate clock, and each PCM captures at a frame what it played at
/// that frame. Its controls, numbered from 1: Master Playback Volume (64 steps of 1 dB), Master Playback
/// Switch, Capture Volume, Capture Switch, Capture Source (Mic, Line), Headphone Jack.
struct FakedCardOptions {
    std::string name = "Faked Card", longName = "unit", components = {};
    unsigned pcmCount = 1;
    unsigned playback = 2, capture = 2; ///< channels of each PCM, at most 8; 0: direction is absent
    std::vector<unsigned> rates{44100, 48000, 96000};
    std::vector<unsigned> formats{2, 10, 32}; ///< as alsa-lib numbers them; 16 and 32 bits, 24 in three bytes
    /// Names of the first and the third control.
    std::array<const char*, 2> volumeNames{"Master Playback Volume", "Capture Volume"};
    bool isBusy = false; ///< starts with FakedFault::Busy
    /// How many of the first opens of the control device, and of PCMs, fail as if out of descriptors.
    std::array<unsigned, 2> failedOpens{};
    /// The errno of every open of a capture PCM; ENOENT: the PCM is listed, but its file is absent;
    /// ENOMEM: the PCM is opened, but then fails.
    int captureError = 0;
    unsigned ioctlsUntilUnplug = 0;             ///< unplugged during that ioctl, which fails; 0: never
    unsigned minPeriod = 16, maxBuffer = 65536; ///< frames
    double partsPerMillion = 0.0;               ///< clock error; positive: fast
    unsigned granularity = 1;                   ///< step of its position, in frames
    bool isElastic = true;                      ///< its clock waits for a late program: no overloads
    bool mapsSamples = true;                    ///< false: samples by read and write only
    bool hasStamps = true;                      ///< false: its time stamps are 0
    bool canLink = true;
    /// An endless list of PCMs, billions of items, reversed ranges, and values outside them.
    bool isHostile = false;
};

/// Sound cards of a faked kernel, for this process. The unmodified alsa-lib runs on top: a program that links
/// this library before the C library reaches them by open(), access(), ioctl(), mmap(), poll(), read(),
/// close() and inotify_add_watch() on /dev/snd.
/// Threads: any.
class FAKED_EXPORT FakedCards {
public:
    static int plug(const FakedCardOptions& options); ///< Returns the card's number.
    static void unplug(int card);
    static void unplugAll();
    static bool isPlugged(int card);
    /// `isThere` false clears a lasting fault.
    static void set(int card, FakedFault fault, bool isThere = true);
    /// Ends captureError. The file of the capture PCM appears in /dev/snd.
    static void provideCapture(int card);
    /// Sets a control as another program would.
    static void setControl(int card, unsigned number, long left, long right);
    /// Sends an event of a control, with alsa-lib's SND_CTL_EVENT_MASK_*. The card may lack the control.
    static void announce(int card, unsigned number, unsigned mask);
    static long control(int card, unsigned number, unsigned index = 0);
    /// How often this process has opened its control device.
    static size_t controlOpens(int card);
    /// Number of its devices that this process has open: its PCMs and its control device.
    static size_t openFiles(int card);
    /// The timeouts of poll() pass `factor` times as fast.
    static void hurry(int factor);
};
