#include "DrivingDevice.h"

#include <cstdio>
#include <pthread.h>
#include <spa/param/audio/format-utils.h>

namespace {

constexpr uint32_t stereoFrame = 8;         // bytes
constexpr std::chrono::seconds patience{1}; // per cycle: its end is lost if a node disappears meanwhile
constexpr std::chrono::milliseconds mergeTime{50};
constexpr std::chrono::hours neverLate{1};

} // namespace

DrivingDevice::DrivingDevice(const std::string& remote, const std::string& name, Direction direction,
                             Options options)
    : _client(remote), _direction(direction), _options(std::move(options)),
      _ratio(1.0 + _options.partsPerMillion * 1e-6)
{
    _connect(name);
    const char* port = direction == Direction::Sink ? "playback_FR" : "capture_FR";
    _client.idOf(PW_TYPE_INTERFACE_Port,
                 {{PW_KEY_NODE_ID, std::to_string(_client.nodeID(name))}, {PW_KEY_PORT_NAME, port}});
    _driver = std::thread([this] { _drive(); });
}

void DrivingDevice::_connect(const std::string& name)
{
    _events.version = PW_VERSION_STREAM_EVENTS;
    _events.state_changed = _stateChanged;
    _events.io_changed = _ioChanged;
    _events.process = _process;
    const bool isSink = _direction == Direction::Sink;
    uint8_t space[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
    spa_audio_info_raw format{
        SPA_AUDIO_FORMAT_F32, 0, 48000, 2, {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR}};
    const spa_pod* formats[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &format)};
    NodeProperties properties{
        {PW_KEY_MEDIA_CLASS, isSink ? "Audio/Sink" : "Audio/Source"},
        {PW_KEY_NODE_NAME, name},
        {PW_KEY_NODE_DESCRIPTION, "Driving " + name},
        {PW_KEY_NODE_DRIVER, "true"},
        {PW_KEY_PRIORITY_DRIVER, _isPatient() ? "30000" : "1000"},
        {"adapter.auto-port-config", "{ mode = dsp monitor = true position = preserve }"}};
    if (!_options.clockName.empty())
        properties["clock.name"] = _options.clockName;
    if (_isPatient())
        properties[PW_KEY_NODE_GROUP] = _options.patientGroup;
    _client.locked([&] {
        _stream = pw_stream_new(_client.core(), name.c_str(), newProperties(properties));
        pw_stream_add_listener(_stream, &_listener, &_events, this);
        pw_stream_connect(_stream, isSink ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS |
                                                       PW_STREAM_FLAG_RT_PROCESS),
                          formats, 1);
    });
}

DrivingDevice::~DrivingDevice()
{
    _ended = true;
    _driver.join();
    _client.locked([this] { pw_stream_destroy(_stream); });
}

void DrivingDevice::rename(const char* description)
{
    const spa_dict_item item{PW_KEY_NODE_DESCRIPTION, description};
    const spa_dict properties{0, 1, &item};
    _client.locked([&] { pw_stream_update_properties(_stream, &properties); });
}

void DrivingDevice::_stateChanged(void* data, pw_stream_state /*before*/, pw_stream_state now,
                                  const char* /*error*/)
{
    auto* self = static_cast<DrivingDevice*>(data);
    const std::scoped_lock lock(self->_mutex);
    self->_streaming = now == PW_STREAM_STATE_STREAMING;
    self->_pendingEnds = 0;
    self->_cycleEnded.notify_all();
}

void DrivingDevice::_ioChanged(void* data, uint32_t id, void* area, uint32_t /*size*/)
{
    auto* self = static_cast<DrivingDevice*>(data);
    if (id == SPA_IO_Clock) {
        auto* clock = static_cast<spa_io_clock*>(area);
        const std::string own = std::string("test.") + pw_stream_get_name(self->_stream);
        const std::string& name = self->_options.clockName.empty() ? own : self->_options.clockName;
        if (clock)
            std::snprintf(clock->name, sizeof clock->name, "%s", name.c_str());
        self->_clock = clock;
    } else if (id == SPA_IO_Position) {
        self->_position = static_cast<spa_io_position*>(area);
    }
}

void DrivingDevice::_process(void* data)
{
    auto* self = static_cast<DrivingDevice*>(data);
    { // a driver's process callback runs when all nodes have finished the cycle
        const std::scoped_lock lock(self->_mutex);
        self->_pendingEnds -= self->_pendingEnds > 0 ? 1 : 0;
        self->_cycleEnded.notify_all();
    }
    pw_buffer* buffer = pw_stream_dequeue_buffer(self->_stream);
    if (!buffer)
        return;
    spa_data& block = buffer->buffer->datas[0];
    auto* samples = static_cast<float*>(block.data);
    if (self->_direction == Direction::Sink) {
        samples += block.chunk->offset / sizeof(float);
        self->received.see({samples, block.chunk->size / sizeof(float)}, 2);
    } else {
        spa_io_position* position = self->_position;
        const uint64_t wanted = position ? std::atomic_ref(position->clock.duration).load() : 256;
        block.chunk->offset = 0;
        block.chunk->stride = stereoFrame;
        block.chunk->size = std::min(static_cast<uint32_t>(wanted) * stereoFrame, block.maxsize);
        for (uint32_t i = 0; i < block.chunk->size / sizeof(float); ++i)
            samples[i] = rampSample(self->_samplesGiven++ / 2);
    }
    self->_notePassage(samples[1]);
    pw_stream_queue_buffer(self->_stream, buffer);
}

/// A driving sink plays its frames one cycle later; a driving source captured its frames one cycle earlier.
void DrivingDevice::_notePassage(float sample)
{
    const spa_io_clock* clock = _clock;
    if (!clock || sample == 0)
        return;
    const double cycle = static_cast<double>(clock->duration) / clock->rate.denom * 1e9 / _ratio;
    const double begin = static_cast<double>(clock->nsec) + (_direction == Direction::Sink ? cycle : -cycle);
    const std::scoped_lock lock(_mutex);
    _passage = {static_cast<double>(sample / rampStep), begin};
}

void DrivingDevice::_drive()
{
    using Clock = std::chrono::steady_clock;
    // Real-time priority, if permitted, because a hardware clock does not wait for a processor.
    const sched_param precedence{.sched_priority = 60};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &precedence);
    _time = Clock::now().time_since_epoch();
    for (Nanoseconds due = _time; !_ended;) {
        std::this_thread::sleep_until(Clock::time_point(std::chrono::duration_cast<Clock::duration>(due)));
        const Nanoseconds period = _driveCycle();
        if (period.count() == 0) {
            due += std::chrono::milliseconds(5);
            _time = due;
            continue;
        }
        due += period;
        if (_isPatient()) {
            _waitForNodes();
            due = std::max<Nanoseconds>(due, Clock::now().time_since_epoch());
        }
    }
}

/// Runs one cycle of the graph if this device drives it, and returns its length; 0 otherwise.
DrivingDevice::Nanoseconds DrivingDevice::_driveCycle()
{
    spa_io_clock* clock = _clock;
    const spa_io_position* position = _position;
    if (!_streaming || !clock || !position || !pw_stream_is_driving(_stream))
        return {};
    // The server stores the cycle length it wants here; writing an older value back would undo that.
    const uint64_t duration = position->clock.duration;
    const Nanoseconds period(static_cast<double>(duration) / position->clock.rate.denom * 1e9 / _ratio);
    const uint32_t skipped = _skip.exchange(0);
    _time += skipped * period;
    // The server may have changed the length of a cycle that waited for its nodes.
    _framesDriven += (_isPatient() ? duration : _lastDuration) + skipped * duration;
    _lastDuration = duration;
    clock->nsec = static_cast<uint64_t>(_time.count());
    clock->rate = position->clock.rate;
    clock->position = _framesDriven;
    std::atomic_ref(clock->duration).store(duration); // the process callback reads it on another thread
    clock->delay = 0;
    clock->rate_diff = _ratio;
    _time += period;
    clock->next_nsec = static_cast<uint64_t>((_isPatient() ? _time + neverLate : _time).count());
    {
        const std::scoped_lock lock(_mutex);
        ++_pendingEnds;
    }
    pw_stream_trigger_process(_stream);
    return period;
}

void DrivingDevice::_waitForNodes()
{
    std::unique_lock lock(_mutex);
    const auto areDone = [this] { return _ended || !_streaming || _pendingEnds == 0; };
    if (_pendingEnds > 1) {
        // The cycle that timed out ends as this one begins, and both ends may arrive as one.
        _cycleEnded.wait_for(lock, patience, [&] { return areDone() || _pendingEnds == 1; });
        if (_pendingEnds == 1 && !_cycleEnded.wait_for(lock, mergeTime, areDone))
            _pendingEnds = 0;
    }
    _cycleEnded.wait_for(lock, patience, areDone);
}
