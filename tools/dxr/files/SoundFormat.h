#pragma once

#include <cstdint>
#include <sndfile.h>
#include <string>

/// A format of sound files, and for raw samples what a header would contain.
/// Threads: any.
struct SoundFormat {
    int code = 0; ///< SF_FORMAT_…; 0: by the file's header
    double sampleRate = 0.0;
    uint32_t channelCount = 0;

    int kind() const { return code & SF_FORMAT_TYPEMASK; }
    bool isRaw() const { return kind() == SF_FORMAT_RAW; }
    bool isWave() const { return kind() == SF_FORMAT_WAVEX; }
    bool isOgg() const { return kind() == SF_FORMAT_OGG; }
    /// Whether it can be written to a pipe.
    bool isStreamed() const
    {
        return kind() != SF_FORMAT_AIFF && kind() != SF_FORMAT_AU && kind() != SF_FORMAT_CAF;
    }
    /// By `named` ("flac"), else by the extension of `path`, else WAV. `bits` are 16, 24, 32 (floats), or 0
    /// for the format's default. Throws ToolFailure for an unknown format.
    static SoundFormat toWrite(const std::string& path, const std::string& named, uint32_t bits);
    /// Raw samples by "s16:48000:2" or "f32:44100:1"; empty for the file's header. Throws ToolFailure.
    static SoundFormat toRead(const std::string& named);
    /// "wav, flac, …".
    static std::string names();
};
