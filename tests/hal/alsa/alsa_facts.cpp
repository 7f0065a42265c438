// alsa_facts PLAYBACK [CAPTURE]: prints, one per line, what the driver's calls return in every state, to
// compare the faked cards with the kernel's (scripts/kernel/facts.sh).
#include "AlsaPcm.h"
#include "AlsaQuiet.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <unistd.h>

namespace {

std::string name(long result)
{
    const char* const error = result < 0 ? strerrorname_np(static_cast<int>(-result)) : nullptr;
    return error ? error : std::to_string(result);
}

/// The error that a poll reports, else its events.
long polled(const AlsaPcm& pcm, int milliseconds)
{
    pollfd file = pcm.descriptor();
    poll(&file, 1, milliseconds);
    const int error = pcm.errorIn(file.revents);
    return error ? error : file.revents;
}

/// What the words of a script do.
const std::map<std::string, long (*)(AlsaPcm& pcm, AlsaPcm& other)> calls{
    {"fill", [](AlsaPcm& pcm, AlsaPcm&) -> long { return pcm.fill(); }},
    {"link", [](AlsaPcm& pcm, AlsaPcm& other) -> long { return pcm.link(other); }},
    {"poll", [](AlsaPcm& pcm, AlsaPcm&) { return polled(pcm, 0); }},
    {"prepare", [](AlsaPcm& pcm, AlsaPcm&) -> long { return pcm.prepare(); }},
    {"ready", [](AlsaPcm& pcm, AlsaPcm&) -> long { return pcm.isReady(); }},
    {"sleep", [](AlsaPcm&, AlsaPcm&) -> long { return usleep(200'000); }},
    {"start", [](AlsaPcm& pcm, AlsaPcm&) -> long { return pcm.start(); }},
    {"transfer",
     [](AlsaPcm& pcm, AlsaPcm&) -> long {
         std::vector<float> samples(2048);
         return pcm.transfer(samples.data());
     }},
    {"wait", [](AlsaPcm& pcm, AlsaPcm&) { return polled(pcm, 200); }},
};

/// The words act on the output, or with ">" on the input.
const char* const scripts[] = {
    "ready poll start prepare poll start fill transfer ready poll start start wait ready transfer "
    "sleep poll ready transfer start prepare ready poll",
    ">link >prepare poll >start fill >start >start wait >wait >ready >transfer "
    "sleep poll >poll >ready ready >prepare ready fill start >wait >prepare poll",
};

} // namespace

int main(int count, char** arguments)
{
    if (count < 2)
        return 2;
    const AlsaQuiet quiet;
    for (const char* script : scripts) {
        int error = 0;
        AlsaSetup setup{arguments[1], "", {2, 2}, 48000, 1024, 4};
        const auto out = AlsaPcm::open(HALDirection::Output, setup, error);
        std::printf("a second output: %s\n",
                    AlsaPcm::open(HALDirection::Output, setup, error) ? "open" : name(error).c_str());
        setup.pcmName = arguments[count - 1];
        const auto in = AlsaPcm::open(HALDirection::Input, setup, error);
        std::istringstream words(script);
        for (std::string word; words >> word;) {
            const bool isInputs = word[0] == '>';
            const auto call = calls.at(word.substr(isInputs ? 1 : 0));
            const long result = isInputs ? call(*in, *out) : call(*out, *in);
            std::printf("%s: %s\n", word.c_str(), name(result).c_str());
        }
    }
}
