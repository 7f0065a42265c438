// alsa_facts PLAYBACK [CAPTURE]: prints, one per line, what alsa-lib returns in every state that the driver
// handles, to compare the faked cards with the kernel's (scripts/kernel/facts.sh).
#include <alsa/asoundlib.h>
#include <cerrno>
#include <map>
#include <poll.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr snd_pcm_uframes_t period = 1024;
constexpr snd_pcm_uframes_t ring = 4096;

std::string name(long result)
{
    const char* const error = result < 0 ? strerrorname_np(static_cast<int>(-result)) : nullptr;
    return error ? error : std::to_string(result);
}

/// Opens a direction of a card. Without `stops` it goes on after an overload.
snd_pcm_t* open(const char* card, snd_pcm_stream_t stream, bool isMapped, bool stops)
{
    snd_pcm_t* pcm = nullptr;
    snd_pcm_open(&pcm, card, stream, SND_PCM_NONBLOCK);
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    snd_pcm_hw_params_any(pcm, hardware);
    snd_pcm_hw_params_set_access(pcm, hardware,
                                 isMapped ? SND_PCM_ACCESS_MMAP_INTERLEAVED : SND_PCM_ACCESS_RW_INTERLEAVED);
    snd_pcm_hw_params_set_format(pcm, hardware, SND_PCM_FORMAT_S16);
    snd_pcm_hw_params_set_channels(pcm, hardware, 2);
    snd_pcm_hw_params_set_rate(pcm, hardware, 48000, 0);
    snd_pcm_hw_params_set_period_size(pcm, hardware, period, 0);
    snd_pcm_hw_params_set_buffer_size(pcm, hardware, ring);
    snd_pcm_hw_params(pcm, hardware);
    snd_pcm_sw_params_t* software = nullptr;
    snd_pcm_sw_params_alloca(&software);
    snd_pcm_sw_params_current(pcm, software);
    snd_pcm_uframes_t boundary = 0;
    snd_pcm_sw_params_get_boundary(software, &boundary);
    snd_pcm_sw_params_set_start_threshold(pcm, software, boundary);
    snd_pcm_sw_params_set_stop_threshold(pcm, software, stops ? ring : boundary);
    snd_pcm_sw_params_set_avail_min(pcm, software, period);
    snd_pcm_sw_params_set_tstamp_mode(pcm, software, SND_PCM_TSTAMP_ENABLE);
    snd_pcm_sw_params(pcm, software);
    return pcm;
}

long transfer(snd_pcm_t* pcm, bool isMapped, snd_pcm_uframes_t frames)
{
    std::vector<int16_t> samples(2 * frames);
    if (snd_pcm_stream(pcm) == SND_PCM_STREAM_PLAYBACK)
        return (isMapped ? snd_pcm_mmap_writei : snd_pcm_writei)(pcm, samples.data(), frames);
    return (isMapped ? snd_pcm_mmap_readi : snd_pcm_readi)(pcm, samples.data(), frames);
}

/// The events of a poll; 0 if there are none.
long polled(snd_pcm_t* pcm, int milliseconds)
{
    pollfd file{};
    snd_pcm_poll_descriptors(pcm, &file, 1);
    poll(&file, 1, milliseconds);
    return file.revents;
}

/// What the words of a script do.
const std::map<std::string, long (*)(snd_pcm_t* pcm, snd_pcm_t* other, bool isMapped)> calls{
    {"available", [](auto* pcm, auto*, bool) -> long { return snd_pcm_avail_update(pcm); }},
    {"drop", [](auto* pcm, auto*, bool) -> long { return snd_pcm_drop(pcm); }},
    {"fill", [](auto* pcm, auto*, bool isMapped) { return transfer(pcm, isMapped, ring); }},
    {"isBehind", [](auto* pcm, auto*, bool) -> long { return snd_pcm_avail(pcm) > long{ring}; }},
    {"link", [](auto* pcm, auto* other, bool) -> long { return snd_pcm_link(pcm, other); }},
    {"more", [](auto* pcm, auto*, bool isMapped) { return transfer(pcm, isMapped, 16); }},
    {"period", [](auto* pcm, auto*, bool isMapped) { return transfer(pcm, isMapped, period); }},
    {"poll", [](auto* pcm, auto*, bool) { return polled(pcm, 0); }},
    {"prepare", [](auto* pcm, auto*, bool) -> long { return snd_pcm_prepare(pcm); }},
    {"sleep", [](auto*, auto*, bool) -> long { return usleep(200'000); }},
    {"start", [](auto* pcm, auto*, bool) -> long { return snd_pcm_start(pcm); }},
    {"state", [](auto* pcm, auto*, bool) -> long { return snd_pcm_state(pcm); }},
    {"wait", [](auto* pcm, auto*, bool) { return polled(pcm, 200); }},
};

/// The words of a script act on the output, or with ">" on the input.
const struct {
    bool stops, hasInput;
    const char* words;
} scripts[] = {
    {true, false,
     "state available poll start drop "
     "prepare poll start fill more available poll "
     "start state start prepare wait sleep "
     "poll state available more start prepare state"},
    {false, false, "prepare start sleep state isBehind poll period"},
    {true, true,
     ">link >prepare state >start fill >start state >wait >period "
     "sleep poll >poll >state state >more "
     ">prepare state fill start >state drop >state"},
};

} // namespace

int main(int count, char** arguments)
{
    if (count < 2)
        return 2;
    for (int i = 0; i < 6; ++i) {
        const bool isMapped = i < 3;
        const auto& script = scripts[i % 3];
        snd_pcm_t* const out = open(arguments[1], SND_PCM_STREAM_PLAYBACK, isMapped, script.stops);
        snd_pcm_t* const in =
            script.hasInput ? open(arguments[count - 1], SND_PCM_STREAM_CAPTURE, isMapped, true) : nullptr;
        std::istringstream words(script.words);
        for (std::string word; words >> word;) {
            const bool isInputs = word[0] == '>';
            const auto call = calls.at(word.substr(isInputs ? 1 : 0));
            const long result = isInputs ? call(in, out, isMapped) : call(out, in, isMapped);
            std::printf("%s %s: %s\n", isMapped ? "mapped" : "by calls", word.c_str(), name(result).c_str());
        }
        snd_pcm_t* second = nullptr;
        std::printf(
            "a second open: %s\n",
            name(snd_pcm_open(&second, arguments[1], SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK)).c_str());
        snd_pcm_close(out);
        if (in)
            snd_pcm_close(in);
    }
}
