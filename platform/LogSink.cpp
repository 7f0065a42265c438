#include "LogSink.h"

#include "Utf8.h"

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace dxr {

namespace {

struct SinkState {
    std::mutex mutex;
    LogSink::Writer writer;
    std::mutex outputMutex; // keeps the default writer's lines whole
};

SinkState& sinkState()
{
    static auto* state = new SinkState; // never destroyed: other threads log while the process exits
    return *state;
}

void writeToSystem(std::string_view line)
{
    const std::string text = printableText(line);
    const std::scoped_lock lock(sinkState().outputMutex);
    syslog(LOG_USER | LOG_NOTICE, "%s", text.c_str());
    std::fprintf(stderr, "%s%s", text.c_str(), text.ends_with('\n') ? "" : "\n");
}

bool isControl(std::string_view character)
{
    const auto lead = static_cast<uint8_t>(character[0]);
    if (character.size() == 1)
        return (lead < 0x20 && lead != '\t' && lead != '\n') || lead == 0x7F;
    const bool isC1 = character.size() == 2 && lead == 0xC2 && static_cast<uint8_t>(character[1]) < 0xA0;
    // The characters that change the direction of text: U+202A..U+202E and U+2066..U+2069.
    const bool turnsText = character.size() == 3 && lead == 0xE2 &&
                           ((character[1] == '\x80' && character[2] >= '\xAA' && character[2] <= '\xAE') ||
                            (character[1] == '\x81' && character[2] >= '\xA6' && character[2] <= '\xA9'));
    return isC1 || turnsText;
}

} // namespace

void LogSink::log(std::string_view line)
{
    Writer writer;
    {
        const std::scoped_lock lock(sinkState().mutex);
        writer = sinkState().writer;
    }
    if (writer)
        writer(line);
    else
        writeToSystem(line);
}

void LogSink::setWriter(Writer writer)
{
    const std::scoped_lock lock(sinkState().mutex);
    std::swap(sinkState().writer, writer);
}

std::string printableText(std::string_view text)
{
    std::string printable;
    printable.reserve(text.size());
    while (!text.empty()) {
        const size_t length = utf8CharacterLength(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length > 0 && !isControl(character)) {
            printable += character;
        } else {
            for (const char byte : character) {
                char escape[5];
                std::snprintf(escape, sizeof escape, "\\x%02X",
                              static_cast<unsigned>(static_cast<uint8_t>(byte)));
                printable += escape;
            }
        }
        text.remove_prefix(character.size());
    }
    return printable;
}

} // namespace dxr
