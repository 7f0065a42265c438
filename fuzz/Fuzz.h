#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/// What each target defines: tries one input. Called by libFuzzer, or by CorpusDriver.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

/// Ends the process, as a fuzzer wants it, when something that must hold does not.
inline void mustHold(bool isTrue, const char* what)
{
    if (isTrue)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

/// The input as text, and in two at its first line's end; the second is empty where there is none.
struct FuzzedText {
    FuzzedText(const uint8_t* bytes, size_t size) : whole(reinterpret_cast<const char*>(bytes), size)
    {
        const size_t end = whole.find('\n');
        first = whole.substr(0, end);
        second = end == std::string_view::npos ? std::string_view() : whole.substr(end + 1);
    }
    std::string_view whole, first, second;
};
