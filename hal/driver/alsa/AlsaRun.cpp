#include "AlsaRun.h"

#include "AlsaQuiet.h"
#include "HALTimeStamp.h"
#include "LogSink.h"
#include "RealtimeScheduling.h"

#include <algorithm>
#include <cmath>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int minStallMilliseconds = 2000; // a device without an interrupt for this time is stuck
constexpr int firstRetryMilliseconds = 50;
constexpr int lastRetryMilliseconds = 1000;
constexpr int maxBusyTries = 20;
constexpr uint32_t maxRestarts = 5;          // without a cycle between them
constexpr double audibleRatioChange = 20e-6; // smaller ones are noise of the measurement
constexpr double ratioNanoseconds = 5e9;     // between two reports of the ratio

} // namespace

AlsaRun::AlsaRun(AlsaSetup setup, CXRef<AlsaCard> card, CXRef<HALIOProcTable> table, AlsaRunState& state)
    : _setup(std::move(setup)), _card(std::move(card)), _table(std::move(table)), _state(state),
      _wakeUps(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    std::array<std::vector<uint32_t>, 2> streams;
    for (size_t place = 0; place < 2; ++place) {
        if (const uint32_t channels = _setup.channels[place])
            streams[place] = {channels};
        _samples[place].resize(size_t{_setup.channels[place]} * _setup.frameCount);
    }
    _table->prepare(streams[0], streams[1], _setup.frameCount);
    _table->setTiming(_setup.rate, _setup.frameCount);
    _state.timeline.begin(_setup.rate);
}

AlsaRun::~AlsaRun()
{
    _request = Request::Stop;
    _wake();
    _thread.join();
    close(_wakeUps);
    _state.isOpen = _state.isStalled = _state.isPlanned = false;
    _state.rateRatio = 1.0;
    _state.changed();
}

// ---- Control

HALStatus AlsaRun::start(HALDeadline deadline, WhenRefused whenRefused)
{
    _whenRefused = whenRefused;
    try {
        _thread = dxr::Thread("dxr-alsa-io", [this] { _run(); });
    } catch (const std::system_error&) { // cannot create a thread
        if (whenRefused == WhenRefused::Retry) {
            _state.isStalled = true;
            _state.changed();
        }
        return kAudioHardwareUnspecifiedError;
    }
    std::unique_lock lock(_mutex);
    const bool isSettled = _settled.wait_until(lock, deadline, [this] { return _startError.has_value(); });
    const int error = isSettled ? *_startError : -ETIMEDOUT;
    if (error && _isWorthALine(error))
        dxr::LogSink::log("cannot start audio device '" + dxr::printableText(_setup.deviceName) +
                          "': " + snd_strerror(error));
    return error ? kAudioHardwareUnspecifiedError : kAudioHardwareNoError;
}

void AlsaRun::yield()
{
    Request expected = Request::Run;
    if (_request.compare_exchange_strong(expected, Request::Yield))
        _wake();
}

void AlsaRun::_wake() const noexcept
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(_wakeUps, &one, sizeof one);
}

// ---- The IO thread

void AlsaRun::_run()
{
    const AlsaQuiet quiet;
    dxr::makeCurrentThreadRealtime();
    for (int delay = firstRetryMilliseconds; _request != Request::Stop;) {
        Request yielded = Request::Yield;
        _request.compare_exchange_strong(yielded, Request::Run);
        _hadCycle = false;
        _state.isOpen = true;
        int error = _open();
        if (error == 0)
            error = _runOnce();
        _close();
        _state.isOpen = false;
        _noteStart(error);
        if (_request == Request::Stop)
            return;
        _noteStall(error);
        delay = _hadCycle ? firstRetryMilliseconds : std::min(2 * delay, lastRetryMilliseconds);
        _sleep(_request == Request::Yield ? lastRetryMilliseconds : delay);
    }
}

int AlsaRun::_open()
{
    const int reserved = _card->reservation().acquire(*this);
    int error = std::min(reserved, 0);
    for (const HALDirection direction : halDirections) {
        const auto place = static_cast<size_t>(direction);
        for (int tries = 0; error == 0 && _setup.channels[place] > 0 && !_pcms[place]; ++tries) {
            _pcms[place] = AlsaPcm::open(direction, _setup, error);
            // A program that has just released the card needs a moment to close it.
            if (error != -EBUSY || reserved == 0 || tries == maxBusyTries || !_shallRun())
                break;
            _sleep(firstRetryMilliseconds);
            error = 0;
        }
    }
    _isLinked = _pcms[0] && _pcms[1] && _pcms[0]->link(*_pcms[1]);
    return error;
}

void AlsaRun::_close()
{
    for (auto& pcm : _pcms)
        pcm.reset();
    _card->reservation().release(*this);
}

/// Runs the open device until it must be closed; returns the reason as an error.
int AlsaRun::_runOnce()
{
    int error = _begin();
    for (uint32_t restarts = 0;;) {
        while (error == 0 && (error = _wait()) == 0 && (error = _cycle()) == 0) {
            restarts = 0;
            _noteCycle();
        }
        const bool isInterrupted = error == -EPIPE || error == -ESTRPIPE;
        if (!isInterrupted || ++restarts > maxRestarts)
            return error;
        if (_hadCycle)
            _table->reportOverload();
        _state.timeline.interrupt();
        error = _begin(); // after a suspend as well: the frames in the ring are old
    }
}

int AlsaRun::_begin() noexcept
{
    AlsaPcm* const input = _pcms[0].get();
    AlsaPcm* const output = _pcms[1].get();
    AlsaPcm& lead = input ? *input : *output;
    const bool isApart = input && output && !_isLinked;
    _cycleCount = 0;
    int error = lead.prepare();
    if (error == 0 && isApart)
        error = output->prepare();
    // The ring is filled before the start: a linked start does not wait for frames, and a direction that
    // starts late stays late.
    for (const auto& pcm : _pcms)
        if (error == 0 && pcm)
            error = pcm->fill();
    if (error == 0)
        error = lead.start();
    return error == 0 && isApart ? output->start() : error;
}

/// Waits until the input has a cycle's frames, and then until the output has room. With a common clock the
/// output has room then, so one interrupt is enough.
int AlsaRun::_wait() noexcept
{
    for (const auto& pcm : _pcms) {
        for (int ready = 0; pcm && ready == 0;) {
            ready = pcm->isReady();
            const int error = ready == 0 ? _poll(*pcm) : std::min(ready, 0);
            if (error)
                return error;
        }
    }
    // If the device is late, its next cycle is ready without _poll(): checked here, so that a request does
    // not wait until the device has caught up.
    return _shallRun() ? 0 : -ECANCELED;
}

int AlsaRun::_poll(const AlsaPcm& pcm) noexcept
{
    // Polls one direction only: if the other is ready, it would end the wait immediately, again and again.
    std::array<pollfd, 2> polled{pollfd{_wakeUps, POLLIN, 0}, pcm.descriptor()};
    const int cycleMilliseconds = static_cast<int>(1000ULL * _setup.frameCount / _setup.rate);
    const int count =
        poll(polled.data(), polled.size(), std::max(minStallMilliseconds, 4 * cycleMilliseconds));
    if (count < 0)
        return errno == EINTR ? 0 : -errno;
    if (count == 0)
        return -ETIMEDOUT;
    return polled[0].revents != 0 ? -ECANCELED : pcm.errorIn(polled[1].revents);
}

int AlsaRun::_cycle() noexcept
{
    const CXRealtimeScope realtime;
    AlsaPcm* const input = _pcms[0].get();
    AlsaPcm* const output = _pcms[1].get();
    const AlsaPcm::Stamp stamp = (input ? *input : *output).stamp();
    const uint64_t due = ++_cycleCount * _setup.frameCount;
    _step = _state.timeline.advance(stamp.hostNanoseconds, stamp.position, due, _setup.frameCount);
    if (const int error = input ? input->transfer(_samples[0].data()) : 0)
        return error;
    HALCycle cycle;
    cycle.frameCount = _setup.frameCount;
    _fillTimes(cycle);
    const HALStreamBlock inputBlock{_samples[0].data(), _setup.channels[0]};
    const HALStreamBlock outputBlock{_samples[1].data(), _setup.channels[1]};
    if (input)
        cycle.input = {&inputBlock, 1};
    if (output)
        cycle.output = {&outputBlock, 1};
    _table->runCycle(cycle);
    return output ? output->transfer(_samples[1].data()) : 0;
}

/// The cycle began when its last input frame was captured; its output is played after the frames in the ring.
void AlsaRun::_fillTimes(HALCycle& cycle) const noexcept
{
    const auto at = [this](double frames) {
        return halTimeStamp(static_cast<double>(_step.sampleTime) + frames,
                            _step.nanoseconds + frames * _step.nanosecondsPerFrame, _step.rateRatio);
    };
    const double frames = _setup.frameCount;
    cycle.now = at(0.0);
    cycle.inputTime = at(-frames);
    cycle.outputTime = at(_pcms[1] ? (_pcms[1]->periodCount() - 1) * frames : 0.0);
}

// ---- Between cycles

void AlsaRun::_noteCycle()
{
    if (!std::exchange(_hadCycle, true)) {
        _noteStart(0);
        _state.isStalled = false;
        _state.changed();
    }
    if (_ratioNanoseconds == 0.0)
        _ratioNanoseconds = _step.nanoseconds; // the first estimates are inaccurate
    if (_step.nanoseconds < _ratioNanoseconds + ratioNanoseconds)
        return;
    _ratioNanoseconds = _step.nanoseconds;
    if (std::abs(_step.rateRatio - _state.rateRatio) >= audibleRatioChange) {
        _state.rateRatio = _step.rateRatio;
        _state.changed();
    }
}

void AlsaRun::_noteStall(int error)
{
    if (_request != Request::Yield && _isWorthALine(error) && !std::exchange(_isLogged, true))
        dxr::LogSink::log("audio device '" + dxr::printableText(_setup.deviceName) +
                          "' stopped delivering audio (" + snd_strerror(error) + "); trying again");
    _state.timeline.interrupt();
    _state.isStalled = true;
    _state.changed();
}

/// A card that was unplugged is no fault. Opening it again, before its removal is noticed, may fail with any
/// error, so the card is asked.
bool AlsaRun::_isWorthALine(int error) const
{
    return error != -ENODEV && _card->name();
}

void AlsaRun::_noteStart(int error)
{
    const std::scoped_lock lock(_mutex);
    if (!_startError)
        _startError = error;
    _settled.notify_all();
    if (*_startError != 0 && _whenRefused == WhenRefused::End)
        _request = Request::Stop;
}

/// Waits until the time has passed or the request changes.
void AlsaRun::_sleep(int milliseconds) const noexcept
{
    pollfd wakeUps{_wakeUps, POLLIN, 0};
    uint64_t count = 0;
    const Request before = _request;
    if (before == Request::Stop)
        return;
    [[maybe_unused]] const ssize_t size = read(_wakeUps, &count, sizeof count);
    if (_request == before)
        poll(&wakeUps, 1, milliseconds);
}
