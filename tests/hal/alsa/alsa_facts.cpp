// alsa_facts PLAYBACK [CAPTURE]: prints, one per line, what alsa-lib returns in every state that the driver
// handles, to compare the faked cards with the kernel's (scripts/kernel/facts.sh).
#include <alsa/asoundlib.h>
#include <cerrno>
#include <initializer_list>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr snd_pcm_uframes_t period = 1024;
constexpr snd_pcm_uframes_t ring = 4096;
std::vector<int16_t> samples(4 * ring);

std::string name(long result)
{
    if (result >= 0)
        return std::to_string(result);
    const char* const text = strerrorname_np(static_cast<int>(-result));
    return text ? text : "?";
}

/// A braced list is evaluated from left to right, so a state is read after the call before it.
struct Fact {
    const char* what;
    std::string value;
};

void line(const char* access, const char* situation, std::initializer_list<Fact> facts)
{
    std::printf("%s, %s:", access, situation);
    for (const Fact& fact : facts)
        std::printf(" %s %s;", fact.what, fact.value.c_str());
    std::printf("\n");
}

/// One open direction of a card.
class Side {
public:
    Side(const char* card, snd_pcm_stream_t stream, bool isMapped, bool stops) : _isMapped(isMapped)
    {
        snd_pcm_open(&pcm, card, stream, SND_PCM_NONBLOCK);
        snd_pcm_hw_params_t* hardware = nullptr;
        snd_pcm_hw_params_alloca(&hardware);
        snd_pcm_hw_params_any(pcm, hardware);
        snd_pcm_hw_params_set_access(
            pcm, hardware, isMapped ? SND_PCM_ACCESS_MMAP_INTERLEAVED : SND_PCM_ACCESS_RW_INTERLEAVED);
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
    }
    ~Side() { snd_pcm_close(pcm); }
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;

    std::string state() const { return snd_pcm_state_name(snd_pcm_state(pcm)); }
    std::string put(snd_pcm_uframes_t frames) const
    {
        return name(_isMapped ? snd_pcm_mmap_writei(pcm, samples.data(), frames)
                              : snd_pcm_writei(pcm, samples.data(), frames));
    }
    std::string get(snd_pcm_uframes_t frames) const
    {
        return name(_isMapped ? snd_pcm_mmap_readi(pcm, samples.data(), frames)
                              : snd_pcm_readi(pcm, samples.data(), frames));
    }
    std::string polled(int milliseconds = 0) const
    {
        pollfd file{};
        snd_pcm_poll_descriptors(pcm, &file, 1);
        return poll(&file, 1, milliseconds) > 0 ? std::to_string(file.revents) : "nothing";
    }
    std::string available() const { return name(snd_pcm_avail_update(pcm)); }

    snd_pcm_t* pcm = nullptr;

private:
    const bool _isMapped;
};

void one(const char* access, const char* card, bool isMapped)
{
    const Side side(card, SND_PCM_STREAM_PLAYBACK, isMapped, true);
    snd_pcm_t* const pcm = side.pcm;
    snd_pcm_uframes_t available = 0;
    snd_htimestamp_t time{};
    line(access, "fresh",
         {{"state", side.state()},
          {"available", side.available()},
          {"poll", side.polled()},
          {"start", name(snd_pcm_start(pcm))},
          {"drop", name(snd_pcm_drop(pcm))},
          {"resume", name(snd_pcm_resume(pcm))}});
    line(access, "prepared",
         {{"prepare", name(snd_pcm_prepare(pcm))},
          {"poll", side.polled()},
          {"start empty", name(snd_pcm_start(pcm))},
          {"fill", side.put(ring)},
          {"more", side.put(16)},
          {"available", side.available()},
          {"poll", side.polled()}});
    line(access, "running",
         {{"start", name(snd_pcm_start(pcm))},
          {"state", side.state()},
          {"again", name(snd_pcm_start(pcm))},
          {"prepare", name(snd_pcm_prepare(pcm))},
          {"poll", side.polled(200)}});
    usleep(200'000);
    line(access, "starved",
         {{"poll", side.polled()},
          {"state", side.state()},
          {"available", side.available()},
          {"write", side.put(16)},
          {"stamp", name(snd_pcm_htimestamp(pcm, &available, &time))},
          {"start", name(snd_pcm_start(pcm))},
          {"resume", name(snd_pcm_resume(pcm))},
          {"prepare", name(snd_pcm_prepare(pcm))},
          {"state", side.state()}});
    snd_pcm_t* second = nullptr;
    line(access, "busy",
         {{"open", name(snd_pcm_open(&second, card, SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK))}});
}

void behind(const char* access, const char* card, bool isMapped)
{
    const Side side(card, SND_PCM_STREAM_PLAYBACK, isMapped, false);
    line(access, "without a stop",
         {{"prepare", name(snd_pcm_prepare(side.pcm))}, {"start empty", name(snd_pcm_start(side.pcm))}});
    usleep(200'000);
    line(access, "behind",
         {{"state", side.state()},
          {"more than the ring", name(snd_pcm_avail(side.pcm) > static_cast<long>(ring))},
          {"poll", side.polled()},
          {"write", side.put(period)}});
}

void both(const char* access, const char* playbackCard, const char* captureCard, bool isMapped)
{
    const Side out(playbackCard, SND_PCM_STREAM_PLAYBACK, isMapped, true);
    const Side in(captureCard, SND_PCM_STREAM_CAPTURE, isMapped, true);
    line(access, "linked",
         {{"link", name(snd_pcm_link(in.pcm, out.pcm))},
          {"again", name(snd_pcm_link(in.pcm, out.pcm))},
          {"prepare input", name(snd_pcm_prepare(in.pcm))},
          {"output", out.state()},
          {"start empty", name(snd_pcm_start(in.pcm))},
          {"fill", out.put(ring)},
          {"start input", name(snd_pcm_start(in.pcm))},
          {"output", out.state()}});
    usleep(40'000);
    line(access, "linked, running", {{"read", in.get(period)}});
    usleep(200'000);
    line(access, "linked, starved",
         {{"poll", out.polled()},
          {"poll input", in.polled()},
          {"input", in.state()},
          {"output", out.state()},
          {"read", in.get(16)},
          {"prepare input", name(snd_pcm_prepare(in.pcm))},
          {"output", out.state()}});
    line(access, "linked, again",
         {{"fill", out.put(ring)},
          {"start output", name(snd_pcm_start(out.pcm))},
          {"input", in.state()},
          {"drop output", name(snd_pcm_drop(out.pcm))},
          {"input", in.state()},
          {"unlink", name(snd_pcm_unlink(in.pcm))},
          {"again", name(snd_pcm_unlink(in.pcm))},
          {"prepare input", name(snd_pcm_prepare(in.pcm))},
          {"output", out.state()}});
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 2)
        return 2;
    for (const bool isMapped : {true, false}) {
        const char* const access = isMapped ? "mapped" : "by calls";
        one(access, arguments[1], isMapped);
        behind(access, arguments[1], isMapped);
        both(access, arguments[1], arguments[count - 1], isMapped);
    }
}
