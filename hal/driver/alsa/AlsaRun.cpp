#include "AlsaRun.h"

#include "LogSink.h"
#include "RealtimeScheduling.h"

#include <algorithm>
#include <cmath>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int minStallMilliseconds = 2000; // without an interrupt for so long, a device is stuck
constexpr int firstRetryMilliseconds = 50;
constexpr int lastRetryMilliseconds = 1000;
constexpr int maxBusyTries = 20;
constexpr uint32_t maxRestarts = 5;          // without a cycle between them
constexpr double audibleRatioChange = 20e-6; // smaller ones are noise of the measurement
constexpr uint64_t ratioNanoseconds = 5'000'000'000;

} // namespace

AlsaRun::AlsaRun(AlsaRunSetup setup, CXRef<AlsaCard> card, CXRef<HALIOProcTable> table,
                 AlsaTimeline& timeline, std::function<void()> changed)
    : _setup(std::move(setup)), _card(std::move(card)), _table(std::move(table)), _timeline(timeline),
      _changed(std::move(changed)), _wakeUps(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    std::array<std::vector<uint32_t>, 2> streams;
    for (size_t place = 0; place < 2; ++place) {
        if (const uint32_t channels = _setup.channels[place])
            streams[place] = {channels};
        _samples[place].resize(size_t{_setup.channels[place]} * _setup.frameCount);
    }
    _table->prepare(streams[0], streams[1], _setup.frameCount);
    _table->setTiming(_setup.rate, _setup.frameCount);
    _timeline.begin(_setup.rate);
}

AlsaRun::~AlsaRun()
{
    _request = Request::Stop;
    _wake();
    _thread.join();
    close(_wakeUps);
}

// ---- Control

HALStatus AlsaRun::start(HALDeadline deadline, WhenRefused whenRefused)
{
    _whenRefused = whenRefused;
    try {
        _thread = dxr::Thread("dxr-alsa-io", [this] { _run(); });
    } catch (const std::system_error&) { // the process may have no more threads
        return kAudioHardwareUnspecifiedError;
    }
    std::unique_lock lock(_mutex);
    if (_settled.wait_until(lock, deadline, [this] { return _startError.has_value(); }))
        return *_startError ? kAudioHardwareUnspecifiedError : kAudioHardwareNoError;
    return kAudioHardwareUnspecifiedError;
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
    dxr::makeCurrentThreadRealtime();
    int delay = firstRetryMilliseconds;
    while (_request != Request::Stop) {
        Request yielded = Request::Yield;
        _request.compare_exchange_strong(yielded, Request::Run);
        _hadCycle = false;
        int error = _open();
        if (error == 0)
            error = _runOnce();
        _close();
        _noteStart(error);
        if (_request == Request::Stop)
            return;
        _timeline.interrupt();
        _setStalled(true, error);
        delay = _hadCycle ? firstRetryMilliseconds : std::min(2 * delay, lastRetryMilliseconds);
        _sleep(_request == Request::Yield ? lastRetryMilliseconds : delay);
    }
}

int AlsaRun::_open()
{
    const int reserved = _card->reservation().acquire(*this);
    if (reserved < 0)
        return reserved;
    for (const HALDirection direction : halDirections)
        if (const int error = _open(direction, reserved > 0))
            return error;
    _isLinked = _pcms[0] && _pcms[1] && _pcms[0]->link(*_pcms[1]);
    return 0;
}

/// A program that has just given the card to us needs a moment to close it: it `mayBeBusy`.
int AlsaRun::_open(HALDirection direction, bool mayBeBusy)
{
    const auto place = static_cast<size_t>(direction);
    const AlsaSetup side{_setup.channels[place], _setup.rate, _setup.frameCount, _setup.periodCount};
    int error = 0;
    for (int tries = 0; side.channelCount > 0; ++tries) {
        _pcms[place] = AlsaPcm::open(_setup.pcmName, direction, side, error);
        if (error != -EBUSY || !mayBeBusy || tries == maxBusyTries || !_shallRun())
            return error;
        _sleep(firstRetryMilliseconds);
    }
    return 0;
}

void AlsaRun::_close()
{
    for (auto& pcm : _pcms)
        pcm.reset();
    _card->reservation().release(*this);
}

/// Runs the open device until it has to be closed.
int AlsaRun::_runOnce()
{
    uint32_t restarts = 0;
    int error = _begin();
    for (;;) {
        error = error ? error : _wait();
        if (error == 0) {
            _cycle(error);
            if (error == 0) {
                restarts = 0;
                if (!std::exchange(_hadCycle, true))
                    _noteStart(0);
                if (isStalled())
                    _setStalled(false, 0);
                if (std::exchange(_hasNews, false))
                    _changed();
            }
        }
        if (error) {
            const bool isInterrupted = error == -EPIPE || error == -ESTRPIPE;
            if (!isInterrupted || ++restarts > maxRestarts)
                return error;
            error = _restart();
        }
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
    // Full before it starts: a linked start does not wait for frames, and a direction that is behind stays behind.
    for (const auto& pcm : _pcms)
        if (error == 0 && pcm)
            error = pcm->fill();
    if (error == 0)
        error = lead.start();
    return error == 0 && isApart ? output->start() : error;
}

int AlsaRun::_restart() noexcept
{
    if (_hadCycle)
        _table->reportOverload();
    _timeline.interrupt();
    return _begin(); // after a suspend too: what was in the ring is old
}

/// Waits until the input has a cycle's frames, and then until the output has room: with one clock it has, and one interrupt
/// has been enough.
int AlsaRun::_wait() noexcept
{
    for (const auto& pcm : _pcms) {
        while (pcm) {
            const int ready = pcm->isReady();
            if (ready < 0)
                return ready;
            if (ready > 0)
                break;
            if (const int error = _poll(*pcm))
                return error;
        }
    }
    // A late device has its next cycle at once; a request must not wait for it to catch up.
    return _shallRun() ? 0 : -ECANCELED;
}

int AlsaRun::_poll(const AlsaPcm& pcm) noexcept
{
    // Without the other direction: what is ready would end the wait at once, again and again.
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

void AlsaRun::_cycle(int& error) noexcept
{
    const CXRealtimeScope realtime;
    AlsaPcm* const input = _pcms[0].get();
    AlsaPcm* const output = _pcms[1].get();
    const AlsaPcm::Stamp stamp = (input ? *input : *output).stamp();
    const uint64_t due = ++_cycleCount * _setup.frameCount;
    const AlsaTimeline::Step step =
        _timeline.advance(stamp.hostNanoseconds, stamp.position, due, _setup.frameCount);
    _noteRatio(step);
    if (input && (error = input->transfer(_samples[0].data())) != 0)
        return;
    HALCycle cycle;
    cycle.frameCount = _setup.frameCount;
    _fillTimes(cycle, step);
    const HALStreamBlock inputBlock{_samples[0].data(), _setup.channels[0]};
    const HALStreamBlock outputBlock{_samples[1].data(), _setup.channels[1]};
    if (input)
        cycle.input = {&inputBlock, 1};
    if (output)
        cycle.output = {&outputBlock, 1};
    _table->runCycle(cycle);
    if (output)
        error = output->transfer(_samples[1].data());
}

/// The cycle began when its last frame of input had come; its output is behind what the ring holds.
void AlsaRun::_fillTimes(HALCycle& cycle, const AlsaTimeline::Step& step) const noexcept
{
    const auto at = [&step](double frames) {
        AudioTimeStamp time{};
        time.sampleTime = static_cast<double>(step.sampleTime) + frames;
        time.hostTime =
            static_cast<uint64_t>(std::max(0.0, step.nanoseconds + frames * step.nanosecondsPerFrame));
        time.rateScalar = 1.0 / step.rateRatio;
        time.flags =
            kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
        return time;
    };
    const double frames = _setup.frameCount;
    cycle.now = at(0.0);
    cycle.inputTime = at(-frames);
    cycle.outputTime = at(_pcms[1] ? (_pcms[1]->periodCount() - 1) * frames : 0.0);
}

void AlsaRun::_noteRatio(const AlsaTimeline::Step& step) noexcept
{
    const auto now = static_cast<uint64_t>(step.nanoseconds);
    if (_ratioNanoseconds == 0)
        _ratioNanoseconds = now; // at first it is not known well
    if (now < _ratioNanoseconds + ratioNanoseconds)
        return;
    _ratioNanoseconds = now;
    if (std::abs(step.rateRatio - rateRatio()) < audibleRatioChange)
        return;
    _rateRatio.store(step.rateRatio, std::memory_order_relaxed);
    _hasNews = true;
}

// ---- Between cycles

void AlsaRun::_noteStart(int error)
{
    const std::scoped_lock lock(_mutex);
    if (!_startError)
        _startError = error;
    _settled.notify_all();
    if (*_startError != 0 && _whenRefused == WhenRefused::End)
        _request = Request::Stop;
}

void AlsaRun::_setStalled(bool isStalled, int error)
{
    if (isStalled && _request != Request::Yield && error != -ENODEV && !std::exchange(_isLogged, true))
        dxr::LogSink::log("audio device '" + dxr::printableText(_setup.deviceName) +
                          "' stopped delivering audio (" + snd_strerror(error) + "); trying again");
    if (_isStalled.exchange(isStalled, std::memory_order_relaxed) != isStalled)
        _changed();
}

/// Until the time has passed or something else is requested.
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
