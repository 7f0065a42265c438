#pragma once

#include <cstdint>

// Plain records that describe audio data passed to and from the hardware layer. Programs and archives depend
// on their layout byte for byte: fields must not be moved.

/// A closed interval, minimum <= maximum.
struct AudioValueRange {
    double minimum;
    double maximum;

    friend bool operator==(const AudioValueRange&, const AudioValueRange&) = default;
};

/// A stream's format.
struct AudioStreamBasicDescription {
    double sampleRate;    ///< Hz; 0 in a ranged description: any rate of its range
    uint32_t formatID;    ///< 'lpcm' for linear samples
    uint32_t formatFlags; ///< AudioFormatFlag bits
    uint32_t bytesPerPacket;
    uint32_t framesPerPacket; ///< 1 for linear samples
    uint32_t bytesPerFrame;
    uint32_t channelsPerFrame; ///< interleaved channels
    uint32_t bitsPerChannel;
    uint32_t reserved; ///< 0

    friend bool operator==(const AudioStreamBasicDescription&, const AudioStreamBasicDescription&) = default;
};

/// A format that a stream supports, and the sample rates at which it does.
struct AudioStreamRangedDescription {
    AudioStreamBasicDescription format;
    AudioValueRange sampleRateRange; ///< Hz
};

inline constexpr uint32_t kAudioFormatLinearPCM = 0x6C70636D; ///< 'lpcm'
inline constexpr uint32_t kAudioFormatFlagIsFloat = 1;
inline constexpr uint32_t kAudioFormatFlagIsSignedInteger = 4;
inline constexpr uint32_t kAudioFormatFlagIsPacked = 8;
inline constexpr uint32_t kAudioFormatFlagIsNonMixable = 64;

/// One stream's samples in one cycle: frame k of channel c is the float at data[k * numberChannels + c].
struct AudioBuffer {
    uint32_t numberChannels; ///< interleaved
    uint32_t dataByteSize;   ///< frames * numberChannels * 4; 0 if there is no data in this cycle
    void* data;              ///< not owned; null if there is no data in this cycle
};

/// All streams of one direction in one cycle. `buffers` has numberBuffers entries, although declared with
/// one.
struct AudioBufferList {
    uint32_t numberBuffers;
    AudioBuffer buffers[1];
};

struct SMPTETime {
    int16_t subframes;
    int16_t subframeDivisor;
    uint32_t counter;
    uint32_t type;
    uint32_t flags;
    int16_t hours;
    int16_t minutes;
    int16_t seconds;
    int16_t frames;
};

/// A time on a device, in the clocks that `flags` marks as valid.
struct AudioTimeStamp {
    double sampleTime; ///< frames since the device started
    uint64_t hostTime; ///< host ticks
    double rateScalar; ///< host ticks per frame, actual over nominal
    uint64_t wordClockTime;
    SMPTETime smpteTime;
    uint32_t flags; ///< AudioTimeStampFlag bits
    uint32_t reserved;
};

inline constexpr uint32_t kAudioTimeStampSampleTimeValid = 1;
inline constexpr uint32_t kAudioTimeStampHostTimeValid = 2;
inline constexpr uint32_t kAudioTimeStampRateScalarValid = 4;
