#pragma once

#include <filesystem>
#include <fstream>
#include <string>

/// Returns the bytes of a file; empty if it cannot be read.
inline std::string contentOf(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
