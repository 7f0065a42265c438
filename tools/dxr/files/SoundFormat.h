#pragma once

#include <cstdint>
#include <sndfile.h>
#include <string>

/// A format of sound files. For raw samples it includes the values that a header would contain.
struct SoundFormat {
    int code = 0; ///< SF_FORMAT_…; 0: taken from the file's header
    double sampleRate = 0.0;
    uint32_t channelCount = 0;

    int kind() const { return code & SF_FORMAT_TYPEMASK; }
    bool isRaw() const { return kind() == SF_FORMAT_RAW; }
    bool isWave() const { return kind() == SF_FORMAT_WAVEX; }
    bool isOgg() const { return kind() == SF_FORMAT_OGG; }
    /// Whether the format can be written to a pipe.
    bool isStreamed() const
    {
        return kind() != SF_FORMAT_AIFF && kind() != SF_FORMAT_AU && kind() != SF_FORMAT_CAF;
    }
    /// The format named by `named` ("flac") or, if that is empty, by the extension of `path`; without either,
    /// WAV. `bits` is 16, 24, 32 (floats), or 0 for the format's default. Throws ToolFailure.
    static SoundFormat toWrite(const std::string& path, const std::string& named, uint32_t bits);
    /// Raw samples as "s16:48000:2" or "f32:44100:1"; empty: as the file's header. Throws ToolFailure.
    static SoundFormat toRead(const std::string& named);
    /// The names that toWrite() accepts: "wav, flac, …".
    static std::string names();
};
