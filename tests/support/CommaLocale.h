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
        const std::filesystem::path folder =
            std::filesystem::temp_directory_path() / ("comma" + std::to_string(getpid()));
        std::filesystem::create_directories(folder / "xx_XX");
        constexpr char text[] = ",\0.\0\3\3\0\0,\0\0\0.\0\0\0UTF-8";
        // Point, separator, grouping, both as wide characters, charset.
        constexpr uint32_t offsets[6] = {0, 2, 4, 8, 12, 16};
        constexpr uint32_t header[2] = {0x20031115U ^ LC_NUMERIC, 6};
        constexpr uint32_t begin = sizeof header + sizeof offsets;
        std::ofstream file(folder / "xx_XX" / "LC_NUMERIC", std::ios::binary);
        file.write(reinterpret_cast<const char*>(header), sizeof header);
        for (const uint32_t offset : offsets) {
            const uint32_t place = begin + offset;
            file.write(reinterpret_cast<const char*>(&place), sizeof place);
        }
        file.write(text, sizeof text);
        file.close();
        setenv("LOCPATH", folder.c_str(), 1); // NOLINT(concurrency-mt-unsafe): before any thread
        setlocale(LC_NUMERIC, "xx_XX");       // NOLINT(concurrency-mt-unsafe)
        std::filesystem::remove_all(folder);
        EXPECT_STREQ(localeconv()->decimal_point, ","); // NOLINT(concurrency-mt-unsafe)
    }
    ~CommaLocale()
    {
        setlocale(LC_NUMERIC, "C"); // NOLINT(concurrency-mt-unsafe)
        unsetenv("LOCPATH");        // NOLINT(concurrency-mt-unsafe)
    }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;
};
