#include "SoundFormat.h"

#include "Text.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace {

constexpr struct {
    const char* name;
    int kind, samples;
} formats[] = {
    {"wav", SF_FORMAT_WAVEX, SF_FORMAT_FLOAT}, {"flac", SF_FORMAT_FLAC, SF_FORMAT_PCM_24},
    {"ogg", SF_FORMAT_OGG, SF_FORMAT_VORBIS},  {"opus", SF_FORMAT_OGG, SF_FORMAT_OPUS},
    {"aiff", SF_FORMAT_AIFF, SF_FORMAT_FLOAT}, {"au", SF_FORMAT_AU, SF_FORMAT_FLOAT},
    {"caf", SF_FORMAT_CAF, SF_FORMAT_FLOAT},   {"w64", SF_FORMAT_W64, SF_FORMAT_FLOAT},
    {"f32", SF_FORMAT_RAW, SF_FORMAT_FLOAT},   {"s16", SF_FORMAT_RAW, SF_FORMAT_PCM_16},
    {"rf64", SF_FORMAT_RF64, SF_FORMAT_FLOAT},
};

int codeNamed(const std::string& name)
{
    const auto* const found = std::ranges::find(formats, name, [](const auto& each) { return each.name; });
    return found == std::end(formats) ? 0 : found->kind | found->samples;
}

} // namespace

SoundFormat SoundFormat::toWrite(const std::string& path, const std::string& named, uint32_t bits)
{
    std::string name = named.empty() ? foldCase(std::filesystem::path(path).extension().string()) : named;
    if (name.starts_with("."))
        name.erase(0, 1);
    const int code = codeNamed(name.empty() ? "wav" : name == "aif" ? "aiff" : name == "oga" ? "ogg" : name);
    if (code == 0)
        throw ToolFailure("no format '" + singleLine(name) + "': the formats are " + names());
    const int samples = bits == 16 ? SF_FORMAT_PCM_16 : bits == 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_FLOAT;
    SF_INFO info{0, 48000, 2, code, 0, 0};
    if (bits != 0)
        info.format = (code & SF_FORMAT_TYPEMASK) | samples;
    if (!sf_format_check(&info) || ((code & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW && info.format != code))
        throw ToolFailure(name + " does not support samples of " + std::to_string(bits) + " bits");
    return {.code = info.format};
}

SoundFormat SoundFormat::toRead(const std::string& named)
{
    SoundFormat format;
    char name[5] = "";
    int rest = 0;
    if (named.empty())
        return format;
    if (std::sscanf(named.c_str(), "%4[^:]:%lf:%u%n", name, &format.sampleRate, &format.channelCount,
                    &rest) == 3 &&
        static_cast<size_t>(rest) == named.size() && format.sampleRate >= 1.0 && format.sampleRate <= 1e6 &&
        format.channelCount >= 1 && format.channelCount <= 1024)
        format.code = codeNamed(name);
    if (!format.isRaw())
        throw ToolFailure("raw samples are 's16:RATE:CHANNELS' or 'f32:RATE:CHANNELS', not '" +
                          singleLine(named) + "'");
    return format;
}

std::string SoundFormat::names()
{
    return joined(formats, ", ", [](const auto& each) { return each.name; });
}
