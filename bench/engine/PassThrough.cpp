#include "PassThrough.h"

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "PipeWireDriver.h"

#include <RtAudio.h>
#include <algorithm>
#include <alsa/asoundlib.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <jack/jack.h>
#include <pipewire/pipewire.h>
#include <portaudio.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/param.h>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>
#include <time.h>

namespace {

using namespace std::chrono_literals;

/// Waits until `condition` is true; throws after 10 seconds.
void waitFor(const char* what, const std::function<bool()>& condition)
{
    for (const auto deadline = std::chrono::steady_clock::now() + 10s; !condition();
         std::this_thread::sleep_for(2ms)) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error(std::string(what) + " did not come");
    }
}

/// Counts an audio thread's cycles, CPU time and wake-ups. Every candidate's callback calls it once per
/// cycle.
class CycleMeter {
public:
    void tick() noexcept
    {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        _nanoseconds =
            static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
        rusage spent{};
        getrusage(RUSAGE_THREAD, &spent);
        _wakeUps = static_cast<uint64_t>(spent.ru_nvcsw);
        ++_cycles;
    }
    PassThrough::Usage usage() const noexcept { return {_cycles, _nanoseconds, _wakeUps}; }

private:
    std::atomic<uint64_t> _cycles{0}, _nanoseconds{0}, _wakeUps{0};
};

class MeteredPassThrough : public PassThrough {
public:
    Usage usage() const override { return meter.usage(); }

protected:
    CycleMeter meter;
};

/// A runner with one input node and one output node. If they are on different devices, it uses an aggregate.
class EnginePassThrough final : public MeteredPassThrough {
public:
    explicit EnginePassThrough(const Passage& passage) : _heard(passage.frameCount)
    {
        static const bool isChosen =
            HALSetHardwareDriver(PipeWireDriver::initWithRemote(passage.server.remote()));
        if (!isChosen)
            throw std::runtime_error("another backend was there first");
        _runner = DXRDeviceRunner::init();
        _runner->setFrameCount(passage.frameCount);
        _runner->setSampleRate(passage.rate);
        _runner->addDevice(_device(passage.source, true), DXRDeviceRunner::Channels{1},
                           [this](uint64_t, DXRBuffer& buffer) {
                               meter.tick();
                               std::copy_n(buffer.samples(), _heard.size(), _heard.begin());
                           });
        _runner->addDevice(
            _device(passage.sink, false), DXRDeviceRunner::Channels{2},
            [this](uint64_t, DXRBuffer& buffer) { std::ranges::copy(_heard, buffer.samples()); });
        _runner->start();
    }
    ~EnginePassThrough() override { _runner->stop(); }

private:
    static CXRef<DXRDevice> _device(const std::string& uid, bool isInput)
    {
        CXRef<DXRDevice> device;
        waitFor(uid.c_str(), [&] {
            device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(uid, isInput);
            return device && device->isConnected();
        });
        return device;
    }

    std::vector<float> _heard;
    CXRef<DXRDeviceRunner> _runner;
};

/// The minimum: one callback that copies between two ports.
class JackPassThrough final : public MeteredPassThrough {
public:
    explicit JackPassThrough(const Passage& passage)
        : _client(jack_client_open("bare", JackNoStartServer, nullptr))
    {
        if (!_client)
            throw std::runtime_error("no JACK client");
        _input = jack_port_register(_client, "in", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        _output = jack_port_register(_client, "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        jack_set_process_callback(_client, _process, this);
        jack_activate(_client);
        TestClient& client = passage.client;
        const uint32_t node = client.nodeID("bare");
        client.link(client.nodeID(passage.source), "capture_FL", node, "in");
        client.link(node, "out", client.nodeID(passage.sink), "playback_FR");
    }
    ~JackPassThrough() override { jack_client_close(_client); }

private:
    static int _process(jack_nframes_t frameCount, void* data)
    {
        auto& self = *static_cast<JackPassThrough*>(data);
        self.meter.tick();
        std::memcpy(jack_port_get_buffer(self._output, frameCount),
                    jack_port_get_buffer(self._input, frameCount), frameCount * sizeof(float));
        return 0;
    }

    jack_client_t* const _client;
    jack_port_t* _input = nullptr;
    jack_port_t* _output = nullptr;
};

/// Copies channel 1 of interleaved stereo input to channel 2 of the output.
void passInterleaved(const void* input, void* output, size_t frameCount)
{
    const auto* const heard = static_cast<const float*>(input);
    auto* const played = static_cast<float*>(output);
    for (size_t frame = 0; frame < frameCount; ++frame) {
        played[2 * frame] = 0;
        played[2 * frame + 1] = heard[2 * frame];
    }
}

/// PortAudio also looks for sound cards, and ALSA prints long messages if there are none.
void ignoreMissingCard(const char* /*file*/, int /*line*/, const char* /*function*/, int /*error*/,
                       const char* /*format*/, ...)
{}

class PortAudioPassThrough final : public MeteredPassThrough {
public:
    explicit PortAudioPassThrough(const Passage& passage)
    {
        snd_lib_error_set_handler(ignoreMissingCard);
        Pa_Initialize();
        const PaHostApiInfo* const api = Pa_GetHostApiInfo(Pa_HostApiTypeIdToHostApiIndex(paJACK));
        if (!api)
            throw std::runtime_error("PortAudio has no JACK");
        for (int i = 0; i < api->deviceCount; ++i) {
            const PaDeviceIndex device =
                Pa_HostApiDeviceIndexToDeviceIndex(Pa_HostApiTypeIdToHostApiIndex(paJACK), i);
            const PaDeviceInfo& info = *Pa_GetDeviceInfo(device);
            if (std::string(info.name).find(passage.source) == std::string::npos)
                continue;
            const PaStreamParameters input{device, 2, paFloat32, info.defaultLowInputLatency, nullptr};
            const PaStreamParameters output{device, 2, paFloat32, info.defaultLowOutputLatency, nullptr};
            if (Pa_OpenStream(&_stream, &input, &output, passage.rate, passage.frameCount, paNoFlag, _process,
                              this) != paNoError)
                throw std::runtime_error("PortAudio does not open the device");
            Pa_StartStream(_stream);
            return;
        }
        throw std::runtime_error("PortAudio does not see the device");
    }
    ~PortAudioPassThrough() override
    {
        Pa_CloseStream(_stream);
        Pa_Terminate();
    }

private:
    static int _process(const void* input, void* output, unsigned long frameCount,
                        const PaStreamCallbackTimeInfo* /*time*/, PaStreamCallbackFlags /*flags*/, void* data)
    {
        static_cast<PortAudioPassThrough*>(data)->meter.tick();
        passInterleaved(input, output, frameCount);
        return paContinue;
    }

    PaStream* _stream = nullptr;
};

class RtAudioPassThrough final : public MeteredPassThrough {
public:
    explicit RtAudioPassThrough(const Passage& passage)
    {
        for (unsigned i = 0; i < _audio.getDeviceCount(); ++i) {
            if (_audio.getDeviceInfo(i).name.find(passage.source) == std::string::npos)
                continue;
            RtAudio::StreamParameters ends{i, 2, 0};
            RtAudio::StreamOptions options;
            options.flags = RTAUDIO_JACK_DONT_CONNECT; // its own connections deliver no audio
            options.streamName = "rtaudio";
            unsigned frameCount = passage.frameCount;
            _audio.openStream(&ends, &ends, RTAUDIO_FLOAT32, static_cast<unsigned>(passage.rate), &frameCount,
                              _process, this, &options);
            _audio.startStream();
            TestClient& client = passage.client;
            const uint32_t node = client.nodeID("rtaudio");
            client.link(client.nodeID(passage.source), "capture_FL", node, "inport 0");
            client.link(node, "outport 1", client.nodeID(passage.sink), "playback_FR");
            return;
        }
        throw std::runtime_error("RtAudio does not see the device");
    }
    ~RtAudioPassThrough() override { _audio.closeStream(); }

private:
    static int _process(void* output, void* input, unsigned frameCount, double /*time*/,
                        RtAudioStreamStatus /*status*/, void* data)
    {
        static_cast<RtAudioPassThrough*>(data)->meter.tick();
        passInterleaved(input, output, frameCount);
        return 0;
    }

    RtAudio _audio{RtAudio::UNIX_JACK};
};

/// Configures a stream's port, as a session manager would. Returns the stream's node.
uint32_t configureStream(TestClient& client, const char* name, spa_direction direction, double rate)
{
    uint8_t room[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(room, sizeof room);
    spa_audio_info_raw format{};
    format.format = SPA_AUDIO_FORMAT_F32P;
    format.rate = static_cast<uint32_t>(rate);
    format.channels = 1;
    format.position[0] = SPA_AUDIO_CHANNEL_FL;
    const spa_pod* const formatParameter = spa_format_audio_raw_build(&builder, SPA_PARAM_Format, &format);
    const auto* const configuration = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamPortConfig, SPA_PARAM_PortConfig, SPA_PARAM_PORT_CONFIG_direction,
        SPA_POD_Id(direction), SPA_PARAM_PORT_CONFIG_mode, SPA_POD_Id(SPA_PARAM_PORT_CONFIG_MODE_dsp),
        SPA_PARAM_PORT_CONFIG_format, SPA_POD_Pod(formatParameter)));
    const uint32_t node = client.nodeID(name);
    pw_proxy* proxy = nullptr;
    client.locked([&] {
        proxy = client.bind(node, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE);
        pw_node_set_param(reinterpret_cast<pw_node*>(proxy), SPA_PARAM_PortConfig, 0, configuration);
    });
    client.sync();
    client.destroy(proxy);
    return node;
}

/// PipeWire's loopback program, in a separate process.
class LoopbackPassThrough final : public PassThrough {
public:
    explicit LoopbackPassThrough(const Passage& passage)
        : _cyclesPerSecond(passage.rate / passage.frameCount),
          _process(startPrivateProcess({"pw-loopback", "-c", "1", "-m", "[ FL ]", "--capture-props",
                                        _props("loop_in"), "--playback-props", _props("loop_out")},
                                       passage.server.folder()))
    {
        TestClient& client = passage.client;
        client.link(client.nodeID(passage.source), "capture_FL",
                    configureStream(client, "loop_in", SPA_DIRECTION_INPUT, passage.rate), "input_FL");
        client.link(configureStream(client, "loop_out", SPA_DIRECTION_OUTPUT, passage.rate), "output_FL",
                    client.nodeID(passage.sink), "playback_FR");
    }
    ~LoopbackPassThrough() override { endPrivateProcess(_process, SIGTERM); }

    /// From the scheduler's statistics of all threads of the process.
    Usage usage() const override
    {
        uint64_t all = 0;
        uint64_t wakeUps = 0;
        for (const auto& task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(_process) + "/task")) {
            uint64_t nanoseconds = 0;
            std::ifstream(task.path() / "schedstat") >> nanoseconds;
            all += nanoseconds;
            std::ifstream status(task.path() / "status");
            for (std::string key; status >> key;)
                if (uint64_t count = 0; key == "voluntary_ctxt_switches:" && status >> count)
                    wakeUps += count;
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now().time_since_epoch();
        return {static_cast<uint64_t>(time.count() * _cyclesPerSecond), all, wakeUps};
    }

private:
    static std::string _props(const char* name)
    {
        return std::string("{ node.autoconnect=false node.name=") + name + " }";
    }

    const double _cyclesPerSecond;
    const pid_t _process;
};

template <class Candidate> std::unique_ptr<PassThrough> make(const Passage& passage)
{
    // Some candidates connect to the server named in the environment.
    setenv("PIPEWIRE_REMOTE", passage.server.remote().c_str(), 1);
    return std::make_unique<Candidate>(passage);
}

} // namespace

std::vector<PassThroughMaker> passThroughMakers()
{
    return {
        {"engine", make<EnginePassThrough>, false},
        {"bare JACK client", make<JackPassThrough>, false},
        {"pw-loopback", make<LoopbackPassThrough>, false},
        {"PortAudio over JACK", make<PortAudioPassThrough>, true},
        {"RtAudio over JACK", make<RtAudioPassThrough>, true},
    };
}
