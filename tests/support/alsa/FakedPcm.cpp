#include "FakedPcm.h"

#include "FakedKernel.h"
#include "FakedLibrary.h"
#include "FakedParameters.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

namespace {

constexpr size_t page = 4096; // page size: one page of status, one of the program's positions, then the ring

} // namespace

FakedPcm::FakedPcm(FakedCard& ofCard, unsigned pcm, bool captures, int itsDescriptor, int peer,
                   FakedKernel& kernel)
    : card(ofCard), number(pcm), isCapture(captures), descriptor(itsDescriptor), _kernel(kernel), _peer(peer),
      _file(memfd_create("faked-pcm", MFD_CLOEXEC))
{
    const unsigned channels = isCapture ? card.options.capture : card.options.playback;
    _size = 2 * page + size_t{card.options.maxBuffer} * 4 * channels;
    if (ftruncate(_file, static_cast<off_t>(_size)) == 0)
        _memory = static_cast<char*>(
            FakedLibrary::mmap(nullptr, _size, PROT_READ | PROT_WRITE, MAP_SHARED, _file, 0));
    _status = reinterpret_cast<snd_pcm_mmap_status*>(_memory);
    _control = reinterpret_cast<snd_pcm_mmap_control*>(_memory + page);
    _control->avail_min = 1;
    char full[page]{};
    if (!isCapture) // a playback PCM is ready while its pipe has room
        FakedLibrary::write(descriptor, full, page);
    setState(SNDRV_PCM_STATE_OPEN);
}

FakedPcm::~FakedPcm()
{
    munmap(_memory, _size);
    FakedLibrary::close(_file);
    FakedLibrary::close(_peer);
}

// ---- State

bool FakedPcm::runs() const
{
    return state() == SNDRV_PCM_STATE_RUNNING;
}

void FakedPcm::setState(int state)
{
    _status->state = state;
    showReadiness();
}

void FakedPcm::stop(int state)
{
    _kernel.forLinked(*this, [state](FakedPcm& each) {
        if (each.runs() || state != SNDRV_PCM_STATE_XRUN)
            each.setState(state);
    });
}

/// Positions do not wrap: no test runs that long.
snd_pcm_uframes_t FakedPcm::_available() const
{
    return _status->hw_ptr - _control->appl_ptr + (isCapture ? 0 : _buffer);
}

/// The kernel's conditions for poll().
void FakedPcm::showReadiness()
{
    switch (state()) {
    case SNDRV_PCM_STATE_RUNNING:
    case SNDRV_PCM_STATE_PREPARED:
    case SNDRV_PCM_STATE_PAUSED:
        return _setReady(_available() >= _control->avail_min);
    default:
        return _setReady(true);
    }
}

void FakedPcm::_setReady(bool isReady)
{
    if (isReady == std::exchange(_isReady, isReady))
        return;
    static char full[page];
    if (isCapture && isReady)
        FakedLibrary::write(_peer, full, 1);
    else if (isCapture)
        FakedLibrary::read(descriptor, full, 1);
    else if (isReady)
        FakedLibrary::read(_peer, full, page);
    else
        FakedLibrary::write(descriptor, full, page);
}

int FakedPcm::stateError() const
{
    switch (state()) {
    case SNDRV_PCM_STATE_PREPARED:
    case SNDRV_PCM_STATE_RUNNING:
    case SNDRV_PCM_STATE_PAUSED:
        return 0;
    case SNDRV_PCM_STATE_XRUN:
        return -EPIPE;
    case SNDRV_PCM_STATE_SUSPENDED:
        return -ESTRPIPE;
    default:
        return -EBADFD;
    }
}

// ---- Time

char* FakedPcm::_samples(int64_t frame) const
{
    return _memory + 2 * page + static_cast<size_t>(frame) % _buffer * _channels * _bytes;
}

int64_t FakedPcm::nextInterrupt() const
{
    const auto period = static_cast<int64_t>(_period);
    return card.timeOf(static_cast<double>(_startFrame + (_done / period + 1) * period));
}

double FakedPcm::lastFrameBeforeOverload() const
{
    if (state() != SNDRV_PCM_STATE_RUNNING || _stopThreshold >= _boundary)
        return HUGE_VAL;
    const auto left = static_cast<int64_t>(_stopThreshold) - 1 - static_cast<int64_t>(_available());
    return static_cast<double>(_startFrame + _done + left) + 0.5;
}

void FakedPcm::advance(int64_t nanoseconds)
{
    if (!runs() || card.has(FakedFault::Suspend))
        return;
    int64_t to = static_cast<int64_t>(std::floor(card.frameAt(nanoseconds))) - _startFrame;
    to -= to % card.options.granularity;
    for (int64_t frame = std::max(_done, to - static_cast<int64_t>(FakedCard::wireFrames)); frame < to;
         ++frame) {
        if (isCapture)
            card.record(number, _startFrame + frame, _samples(frame), _channels, _bytes);
        else
            card.play(number, _startFrame + frame, _samples(frame), _channels, _bytes);
    }
    _done = std::max(_done, to);
    _status->hw_ptr = static_cast<snd_pcm_uframes_t>(_done) % _boundary;
    if (_hasStamps && card.options.hasStamps) {
        const timespec time = fakedTime(nanoseconds);
        std::memcpy(const_cast<void*>(static_cast<volatile void*>(&_status->tstamp)), &time, sizeof time);
    }
    if (_available() >= _stopThreshold)
        stop(SNDRV_PCM_STATE_XRUN);
    showReadiness();
}

// ---- Requests of programs

/// alsa-lib has narrowed each parameter to one value.
int FakedPcm::_setParameters(snd_pcm_hw_params& parameters)
{
    if (const int error = fakedRefine(parameters, card.options, isCapture))
        return error;
    const auto value = [&](unsigned each) { return fakedInterval(parameters, each).min; };
    const unsigned formats = parameters.masks[SNDRV_PCM_HW_PARAM_FORMAT].bits[0]; // 0: S24Packed is bit 32
    _channels = value(SNDRV_PCM_HW_PARAM_CHANNELS);
    if (_rate != value(SNDRV_PCM_HW_PARAM_RATE))
        card.setRate(_rate = value(SNDRV_PCM_HW_PARAM_RATE));
    _period = value(SNDRV_PCM_HW_PARAM_PERIOD_SIZE);
    _buffer = value(SNDRV_PCM_HW_PARAM_BUFFER_SIZE);
    _bytes = formats == 0 ? 3 : formats == 1U << SNDRV_PCM_FORMAT_S16_LE ? 2 : 4;
    for (_boundary = _buffer; _boundary * 2 <= LONG_MAX - _buffer;)
        _boundary *= 2;
    std::memset(_samples(0), 0, _buffer * _channels * _bytes);
    _stopThreshold = _buffer;
    _control->avail_min = _period;
    _control->appl_ptr = _status->hw_ptr = 0;
    setState(SNDRV_PCM_STATE_SETUP);
    return 0;
}

int FakedPcm::_prepare()
{
    if (state() == SNDRV_PCM_STATE_OPEN)
        return -EBADFD;
    if (runs())
        return -EBUSY;
    _kernel.forLinked(*this, [](FakedPcm& each) {
        if (each.runs())
            return;
        each._control->appl_ptr = each._status->hw_ptr = 0;
        each._done = 0;
        each.setState(SNDRV_PCM_STATE_PREPARED);
    });
    return 0;
}

int FakedPcm::_start()
{
    int error = 0; // of the first PCM that has one
    _kernel.forLinked(*this, [&](const FakedPcm& each) {
        const bool isEmpty = !each.isCapture && each._stopThreshold < each._boundary &&
                             each._available() >= each._buffer; // the ring has nothing to play
        const int own = each.state() != SNDRV_PCM_STATE_PREPARED ? -EBADFD : isEmpty ? -EPIPE : 0;
        error = error ? error : own;
    });
    if (error)
        return error;
    _kernel.forLinked(*this, [now = fakedNow()](FakedPcm& each) {
        each._startFrame = static_cast<int64_t>(std::floor(each.card.frameAt(now)));
        each._done = 0;
        each.setState(SNDRV_PCM_STATE_RUNNING);
    });
    _kernel.clockNeeded();
    return 0;
}

int FakedPcm::_synchronise(snd_pcm_sync_ptr& pointers)
{
    if (pointers.flags & SNDRV_PCM_SYNC_PTR_HWSYNC) {
        _kernel.update(card);
        if (const int error = stateError())
            return error;
    }
    if (pointers.flags & SNDRV_PCM_SYNC_PTR_APPL)
        pointers.c.control.appl_ptr = _control->appl_ptr;
    else
        _control->appl_ptr = pointers.c.control.appl_ptr;
    if (pointers.flags & SNDRV_PCM_SYNC_PTR_AVAIL_MIN)
        pointers.c.control.avail_min = _control->avail_min;
    else
        _control->avail_min = pointers.c.control.avail_min;
    pointers.s.status = *_status;
    showReadiness();
    return 0;
}

int FakedPcm::_transfer(snd_xferi& transfer)
{
    snd_pcm_uframes_t done = 0;
    int error = 0;
    while (done < transfer.frames) {
        _kernel.update(card);
        if ((error = stateError()) != 0)
            break;
        const auto count =
            std::min({transfer.frames - done, _available(), _buffer - _control->appl_ptr % _buffer});
        if (count == 0) {
            error = -EAGAIN; // blocking transfers are not supported
            break;
        }
        char* const ring = _samples(static_cast<int64_t>(_control->appl_ptr));
        char* const theirs = static_cast<char*>(transfer.buf) + done * _channels * _bytes;
        std::memcpy(isCapture ? theirs : ring, isCapture ? ring : theirs, count * _channels * _bytes);
        _control->appl_ptr = (_control->appl_ptr + count) % _boundary;
        done += count;
        showReadiness();
    }
    transfer.result = done ? static_cast<snd_pcm_sframes_t>(done) : error;
    return done ? 0 : error;
}

int FakedPcm::ioctl(unsigned long request, void* argument)
{
    switch (request) {
    case SNDRV_PCM_IOCTL_PVERSION:
        *static_cast<int*>(argument) = SNDRV_PCM_VERSION;
        return 0;
    case SNDRV_PCM_IOCTL_INFO:
        card.describe(*static_cast<snd_pcm_info*>(argument), number, isCapture);
        return 0;
    case SNDRV_PCM_IOCTL_TTSTAMP:
    case SNDRV_PCM_IOCTL_USER_PVERSION:
    case SNDRV_PCM_IOCTL_TSTAMP:
        return 0;
    case SNDRV_PCM_IOCTL_HW_REFINE:
        return fakedRefine(*static_cast<snd_pcm_hw_params*>(argument), card.options, isCapture);
    case SNDRV_PCM_IOCTL_HW_PARAMS:
        return _setParameters(*static_cast<snd_pcm_hw_params*>(argument));
    case SNDRV_PCM_IOCTL_HW_FREE:
        setState(SNDRV_PCM_STATE_OPEN);
        return 0;
    case SNDRV_PCM_IOCTL_SW_PARAMS: {
        auto& parameters = *static_cast<snd_pcm_sw_params*>(argument);
        _stopThreshold = parameters.stop_threshold;
        _hasStamps = parameters.tstamp_mode == SNDRV_PCM_TSTAMP_ENABLE;
        _control->avail_min = parameters.avail_min;
        parameters.boundary = _boundary;
        showReadiness();
        return 0;
    }
    case SNDRV_PCM_IOCTL_HWSYNC:
        _kernel.update(card);
        return stateError();
    case SNDRV_PCM_IOCTL_SYNC_PTR:
        return _synchronise(*static_cast<snd_pcm_sync_ptr*>(argument));
    case SNDRV_PCM_IOCTL_CHANNEL_INFO: {
        auto& info = *static_cast<snd_pcm_channel_info*>(argument);
        info.offset = 0;
        info.first = info.channel * _bytes * 8;
        info.step = _channels * _bytes * 8;
        return 0;
    }
    case SNDRV_PCM_IOCTL_PREPARE:
        return _prepare();
    case SNDRV_PCM_IOCTL_START:
        return _start();
    case SNDRV_PCM_IOCTL_DROP:
        if (state() == SNDRV_PCM_STATE_OPEN)
            return -EBADFD;
        stop(SNDRV_PCM_STATE_SETUP);
        return 0;
    case SNDRV_PCM_IOCTL_RESUME: // not supported: programs must prepare again
        return state() == SNDRV_PCM_STATE_SUSPENDED ? -ENOSYS : -EBADFD;
    case SNDRV_PCM_IOCTL_LINK:
        return _kernel.link(*this, static_cast<int>(std::bit_cast<intptr_t>(argument)));
    case SNDRV_PCM_IOCTL_UNLINK:
        return std::exchange(link, 0U) ? 0 : -EALREADY;
    case SNDRV_PCM_IOCTL_WRITEI_FRAMES:
    case SNDRV_PCM_IOCTL_READI_FRAMES:
        return _transfer(*static_cast<snd_xferi*>(argument));
    default:
        return -ENOTTY;
    }
}

int FakedPcm::mapped(unsigned long offset, off_t& place) const
{
    place = static_cast<off_t>(2 * page + offset);
    if (offset == SNDRV_PCM_MMAP_OFFSET_STATUS_OLD || offset == SNDRV_PCM_MMAP_OFFSET_STATUS_NEW)
        place = 0;
    else if (offset == SNDRV_PCM_MMAP_OFFSET_CONTROL_OLD || offset == SNDRV_PCM_MMAP_OFFSET_CONTROL_NEW)
        place = page;
    else
        return card.options.mapsSamples ? _file : -1;
    return card.options.mapsStatus ? _file : -1;
}
