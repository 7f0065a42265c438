#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

/// While it exists, the process formats numbers with a decimal comma, like an application that calls
/// setlocale() on a German computer. The locale need not be installed: this writes an LC_NUMERIC file in the
/// C library's format.
class CommaLocale {
public:
    CommaLocale()
    {
        namespace fs = std::filesystem;
        const fs::path folder = fs::temp_directory_path() / ("comma" + std::to_string(getpid()));
        fs::create_directories(folder / "xx_XX");
        // Point, separator, grouping, both as wide characters, charset; the offsets count from the beginning.
        constexpr uint32_t header[8] = {0x20031115U ^ LC_NUMERIC, 6, 32, 34, 36, 40, 44, 48};
        constexpr char text[] = ",\0.\0\3\3\0\0,\0\0\0.\0\0\0UTF-8";
        std::ofstream(folder / "xx_XX" / "LC_NUMERIC", std::ios::binary)
            .write(reinterpret_cast<const char*>(header), sizeof header)
            .write(text, sizeof text);
        setenv("LOCPATH", folder.c_str(), 1); // NOLINT(concurrency-mt-unsafe): before any thread
        setlocale(LC_NUMERIC, "xx_XX");       // NOLINT(concurrency-mt-unsafe)
        fs::remove_all(folder);
        EXPECT_STREQ(localeconv()->decimal_point, ","); // NOLINT(concurrency-mt-unsafe)
    }
    ~CommaLocale()
    {
        setlocale(LC_NUMERIC, "C"); // NOLINT(concurrency-mt-unsafe)
        unsetenv("LOCPATH");        // NOLINT(concurrency-mt-unsafe)
    }
    CommaLocale(const CommaLocale&) = delete;
};
