#include "WaveCheck.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

constexpr const char* cutShort = "is cut short";

uint64_t littleEndian(const unsigned char* bytes, size_t count)
{
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value |= uint64_t{bytes[i]} << (8 * i);
    return value;
}

/// Follows the chunks of a WAV file (RIFF, or RF64 with its 64-bit sizes) up to the samples.
std::string chunkFault(std::istream& file, uint64_t fileSize)
{
    constexpr uint32_t sizeElsewhere = 0xFFFFFFFF; // in the ds64 chunk; or unknown, when written to a pipe
    uint64_t at = 12;
    uint64_t size64 = 0;
    bool hasFormat = false;
    for (;;) {
        std::array<unsigned char, 24> header{};
        file.clear();
        file.seekg(static_cast<std::streamoff>(at));
        file.read(reinterpret_cast<char*>(header.data()), header.size());
        if (file.gcount() < 8)
            return cutShort;
        const std::string_view name(reinterpret_cast<const char*>(header.data()), 4);
        uint64_t size = littleEndian(&header[4], 4);
        if (name == "ds64" && file.gcount() >= 24)
            size64 = littleEndian(&header[16], 8);
        hasFormat = hasFormat || name == "fmt ";
        if (name == "data") {
            if (size == sizeElsewhere)
                size = size64;
            if (!hasFormat)
                return "no sound file: its samples come before their format";
            if (size == 0 && fileSize <= at + 8)
                return "holds no sound";
            return at + 8 + size > fileSize ? cutShort : "";
        }
        at += 8 + size + size % 2;
    }
}

} // namespace

std::string waveFileFault(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        return "is a folder";
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::strerror(errno);
    if (!std::filesystem::is_regular_file(path, error))
        return {}; // a pipe cannot be looked at twice
    const uint64_t fileSize = std::filesystem::file_size(path, error);
    if (fileSize == 0)
        return "is empty";
    std::array<char, 12> start{};
    file.read(start.data(), start.size());
    const std::string_view kind(start.data(), 4);
    if (kind != "RIFF" && kind != "RF64")
        return {};
    if (file.gcount() < 12)
        return cutShort;
    return std::string_view(&start[8], 4) == "WAVE" ? chunkFault(file, fileSize) : std::string();
}
