#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// How sound is kept in a file: what libsndfile calls it, and for raw samples what no header says. Threads: any.
struct SoundFormat {
    int code = 0; ///< SF_FORMAT_…; 0: as the file says
    double sampleRate = 0.0;
    uint32_t channelCount = 0;

    bool isRaw() const;
    bool isWave() const;
    bool isOgg() const;
    /// Whether it can be written without going back to its header.
    bool isStreamed() const;
    /// By `named` ("flac"), else by the end of `path`, else WAV; `bits` are 16, 24, 32 (floats), or 0 for the format's
    /// usual. Throws ToolFailure for a format that is not written.
    static SoundFormat toWrite(const std::string& path, const std::string& named, uint32_t bits);
    /// "s16:48000:2" or "f32:44100:1" as raw samples; the empty text for what the file says. Throws ToolFailure.
    static SoundFormat toRead(const std::string& named);
    /// The names that toWrite() knows: "wav, flac, …".
    static std::string names();
};
