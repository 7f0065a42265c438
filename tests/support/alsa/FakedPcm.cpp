#include "FakedPcm.h"

#include "FakedLibrary.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

namespace {

/// Narrows `interval` to the integers from `min` to `max`. Returns -EINVAL if none is left.
int narrow(snd_interval& interval, unsigned min, unsigned max)
{
    interval.min = std::max(interval.min + interval.openmin, min);
    interval.max = std::min(interval.max - interval.openmax, max);
    interval.openmin = interval.openmax = 0;
    interval.integer = 1;
    return interval.min > interval.max ? -EINVAL : 0;
}

/// Narrows a mask of up to 64 choices to `numbers`. Returns -EINVAL if none is left.
int narrowMask(snd_mask& mask, const std::vector<unsigned>& numbers)
{
    unsigned allowed[2]{};
    for (const unsigned number : numbers)
        allowed[number / 32] |= 1U << number % 32;
    mask.bits[0] &= allowed[0];
    mask.bits[1] &= allowed[1];
    return mask.bits[0] || mask.bits[1] ? 0 : -EINVAL;
}

snd_mask& maskOf(snd_pcm_hw_params& parameters, unsigned number)
{
    return parameters.masks[number - SNDRV_PCM_HW_PARAM_FIRST_MASK];
}

snd_interval& intervalOf(snd_pcm_hw_params& parameters, unsigned number)
{
    return parameters.intervals[number - SNDRV_PCM_HW_PARAM_FIRST_INTERVAL];
}

} // namespace

FakedPcm::FakedPcm(std::shared_ptr<FakedCard> ofCard, unsigned pcm, bool captures, int itsDescriptor)
    : card(std::move(ofCard)), number(pcm), isCapture(captures), descriptor(itsDescriptor),
      _file(memfd_create("faked-pcm", MFD_CLOEXEC)),
      _channels(captures ? card->options.capture : card->options.playback)
{
    _size = 2 * page + size_t{card->options.maxBuffer} * 4 * _channels;
    if (ftruncate(_file, static_cast<off_t>(_size)) == 0)
        _memory = static_cast<char*>(
            FakedLibrary::mmap(nullptr, _size, PROT_READ | PROT_WRITE, MAP_SHARED, _file, 0));
    _status = reinterpret_cast<snd_pcm_mmap_status*>(_memory);
    _control = reinterpret_cast<snd_pcm_mmap_control*>(_memory + page);
    card->pcms.push_back(this);
    setState(SNDRV_PCM_STATE_OPEN);
}

FakedPcm::~FakedPcm()
{
    _stop(SNDRV_PCM_STATE_SETUP);
    if (_linked)
        _linked->_linked = nullptr;
    std::erase(card->pcms, this);
    munmap(_memory, _size);
    FakedLibrary::close(_file);
}

// ---- State

void FakedPcm::setState(int state)
{
    _status->state = state;
    showReadiness();
}

snd_pcm_uframes_t FakedPcm::_available() const
{
    return _status->hw_ptr - _control->appl_ptr + (isCapture ? 0 : _buffer);
}

/// The kernel's conditions for poll().
void FakedPcm::showReadiness()
{
    const bool isReady = stateError() || _available() >= _control->avail_min;
    FakedLibrary::setFull(descriptor, isReady == isCapture);
}

int FakedPcm::stateError() const
{
    if (_state() == SNDRV_PCM_STATE_PREPARED || _state() == SNDRV_PCM_STATE_RUNNING)
        return 0;
    if (_state() == SNDRV_PCM_STATE_XRUN)
        return -EPIPE;
    return _state() == SNDRV_PCM_STATE_SUSPENDED ? -ESTRPIPE : -EBADFD;
}

// ---- Time

char* FakedPcm::_samples(int64_t frame) const
{
    return _memory + 2 * page + static_cast<size_t>(frame) % _buffer * _channels * _bytes;
}

int64_t FakedPcm::nextInterrupt() const
{
    if (!runs() || card->has(FakedFault::Suspend) || card->has(FakedFault::Stuck))
        return INT64_MAX;
    const auto period = static_cast<int64_t>(_period);
    return card->timeOf(static_cast<double>(_startFrame + (_done / period + 1) * period));
}

double FakedPcm::lastFrameBeforeOverload() const
{
    if (!runs())
        return HUGE_VAL;
    const auto left = static_cast<int64_t>(_stopThreshold) - 1 - static_cast<int64_t>(_available());
    return static_cast<double>(_startFrame + _done + left) + 0.5;
}

/// Records what the PCM has played at the same frames of the card. Does not call memcpy(), which the thread
/// sanitizer would attribute to the program.
void FakedPcm::_record(int64_t end)
{
    const FakedPcm* const player = card->openPcm(number, false);
    const bool isPlaying = player && player->runs() && player->_channels >= _channels;
    const int64_t offset = isPlaying ? _startFrame - player->_startFrame : 0;
    for (int64_t frame = std::max(_done, end - static_cast<int64_t>(_buffer)); frame < end; ++frame) {
        const bool isPlayed = isPlaying && frame + offset >= 0 && frame + offset < player->_done;
        const volatile char* const played = isPlayed ? player->_samples(frame + offset) : nullptr;
        volatile char* const recorded = _samples(frame);
        for (unsigned i = 0; i < _channels * _bytes; ++i)
            recorded[i] = played ? played[i] : '\0';
    }
}

void FakedPcm::advance(int64_t nanoseconds)
{
    if (!runs() || card->has(FakedFault::Suspend))
        return;
    int64_t to = static_cast<int64_t>(std::floor(card->frame())) - _startFrame;
    to -= to % card->options.granularity;
    if (isCapture)
        _record(to);
    _done = std::max(_done, to);
    _status->hw_ptr = static_cast<snd_pcm_uframes_t>(_done);
    if (card->options.hasStamps) {
        const timespec time = fakedTime(nanoseconds);
        std::memcpy(const_cast<void*>(static_cast<volatile void*>(&_status->tstamp)), &time, sizeof time);
    }
    if (_available() >= _stopThreshold)
        _stop(SNDRV_PCM_STATE_XRUN);
    showReadiness();
}

// ---- Requests of programs

/// Narrows the configuration to the card's abilities. Programs do not need the rules that relate times and
/// counts of periods to the sizes.
int FakedPcm::_refine(snd_pcm_hw_params& parameters) const
{
    const FakedCardOptions& can = card->options;
    std::vector<unsigned> accesses{SNDRV_PCM_ACCESS_RW_INTERLEAVED};
    if (can.mapsSamples)
        accesses.push_back(SNDRV_PCM_ACCESS_MMAP_INTERLEAVED);
    snd_interval& rate = intervalOf(parameters, SNDRV_PCM_HW_PARAM_RATE);
    unsigned minRate = UINT_MAX, maxRate = 0;
    for (const unsigned each : can.rates) {
        const bool isIn = each >= rate.min + rate.openmin && each + rate.openmax <= rate.max;
        minRate = isIn ? std::min(minRate, each) : minRate;
        maxRate = isIn ? std::max(maxRate, each) : maxRate;
    }
    parameters.cmask = ~0U;
    parameters.rmask = 0;
    parameters.info = SNDRV_PCM_INFO_INTERLEAVED | SNDRV_PCM_INFO_BLOCK_TRANSFER | SNDRV_PCM_INFO_SYNC_START;
    if (can.mapsSamples)
        parameters.info |= SNDRV_PCM_INFO_MMAP | SNDRV_PCM_INFO_MMAP_VALID;
    return narrowMask(maskOf(parameters, SNDRV_PCM_HW_PARAM_ACCESS), accesses) |
           narrowMask(maskOf(parameters, SNDRV_PCM_HW_PARAM_SUBFORMAT), {0}) |
           narrowMask(maskOf(parameters, SNDRV_PCM_HW_PARAM_FORMAT), can.formats) |
           narrow(intervalOf(parameters, SNDRV_PCM_HW_PARAM_CHANNELS), _channels, _channels) |
           narrow(rate, minRate, maxRate) |
           narrow(intervalOf(parameters, SNDRV_PCM_HW_PARAM_PERIOD_SIZE), can.minPeriod, can.maxBuffer / 2) |
           narrow(intervalOf(parameters, SNDRV_PCM_HW_PARAM_BUFFER_SIZE), can.minPeriod * 2, can.maxBuffer);
}

/// alsa-lib has narrowed each parameter to one value.
int FakedPcm::_setParameters(snd_pcm_hw_params& parameters)
{
    if (const int error = _refine(parameters))
        return error;
    const unsigned formats = maskOf(parameters, SNDRV_PCM_HW_PARAM_FORMAT).bits[0]; // 0: 24 bits in 3 bytes
    card->setRate(intervalOf(parameters, SNDRV_PCM_HW_PARAM_RATE).min);
    _period = intervalOf(parameters, SNDRV_PCM_HW_PARAM_PERIOD_SIZE).min;
    _buffer = intervalOf(parameters, SNDRV_PCM_HW_PARAM_BUFFER_SIZE).min;
    _bytes = formats == 0 ? 3 : formats == 1U << SNDRV_PCM_FORMAT_S16_LE ? 2 : 4;
    std::memset(_samples(0), 0, _buffer * _channels * _bytes);
    _stopThreshold = _buffer;
    _control->avail_min = _period;
    _control->appl_ptr = _status->hw_ptr = 0;
    setState(SNDRV_PCM_STATE_SETUP);
    return 0;
}

int FakedPcm::_prepare()
{
    if (runs())
        return -EBUSY;
    _forLinked([](FakedPcm& each) {
        each._control->appl_ptr = each._status->hw_ptr = 0;
        each._done = 0;
        each.setState(SNDRV_PCM_STATE_PREPARED);
    });
    return 0;
}

int FakedPcm::_start()
{
    int error = 0;
    _forLinked([&](const FakedPcm& each) {
        const bool isEmpty = !each.isCapture && each._available() >= each._buffer; // nothing to play
        const int own = each._state() != SNDRV_PCM_STATE_PREPARED ? -EBADFD : isEmpty ? -EPIPE : 0;
        error = error ? error : own;
    });
    if (error)
        return error;
    card->update();
    _forLinked([](FakedPcm& each) {
        each._startFrame = static_cast<int64_t>(std::floor(each.card->frame()));
        each._done = 0;
        each.setState(SNDRV_PCM_STATE_RUNNING);
    });
    return 0;
}

int FakedPcm::_link(int other)
{
    const auto found = std::ranges::find(card->pcms, other, &FakedPcm::descriptor);
    if (!card->options.canLink || found == card->pcms.end())
        return -ENOSYS;
    _linked = *found;
    _linked->_linked = this;
    return 0;
}

/// Blocking transfers are not supported.
int FakedPcm::_transfer(snd_xferi& transfer)
{
    card->update();
    const size_t size = size_t{_channels} * _bytes;
    const auto frames = std::min(transfer.frames, _available());
    if (stateError() || frames == 0)
        return stateError() ? stateError() : -EAGAIN;
    for (size_t frame = 0; frame < frames; ++frame) {
        char* const ring = _samples(static_cast<int64_t>(_control->appl_ptr + frame));
        char* const theirs = static_cast<char*>(transfer.buf) + frame * size;
        std::memcpy(isCapture ? theirs : ring, isCapture ? ring : theirs, size);
    }
    _control->appl_ptr += frames;
    showReadiness();
    transfer.result = static_cast<snd_pcm_sframes_t>(frames);
    return 0;
}

int FakedPcm::ioctl(unsigned long request, void* argument)
{
    switch (request) {
    case SNDRV_PCM_IOCTL_PVERSION:
        *static_cast<int*>(argument) = SNDRV_PCM_VERSION;
        return 0;
    case SNDRV_PCM_IOCTL_INFO:
        return card->describe(*static_cast<snd_pcm_info*>(argument), number, isCapture);
    case SNDRV_PCM_IOCTL_TTSTAMP:
    case SNDRV_PCM_IOCTL_USER_PVERSION:
    case SNDRV_PCM_IOCTL_TSTAMP:
    case SNDRV_PCM_IOCTL_HW_FREE:
        return 0;
    case SNDRV_PCM_IOCTL_HW_REFINE:
        if (isCapture && card->options.captureError == ENOMEM)
            return -ENOMEM;
        return _refine(*static_cast<snd_pcm_hw_params*>(argument));
    case SNDRV_PCM_IOCTL_HW_PARAMS:
        return _setParameters(*static_cast<snd_pcm_hw_params*>(argument));
    case SNDRV_PCM_IOCTL_SW_PARAMS: {
        auto& parameters = *static_cast<snd_pcm_sw_params*>(argument);
        _stopThreshold = parameters.stop_threshold;
        _control->avail_min = parameters.avail_min;
        parameters.boundary = _buffer << 32; // positions do not wrap: no test runs that long
        showReadiness();
        return 0;
    }
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
        _stop(SNDRV_PCM_STATE_SETUP);
        return 0;
    case SNDRV_PCM_IOCTL_LINK:
        return _link(static_cast<int>(std::bit_cast<intptr_t>(argument)));
    case SNDRV_PCM_IOCTL_WRITEI_FRAMES:
    case SNDRV_PCM_IOCTL_READI_FRAMES:
        return _transfer(*static_cast<snd_xferi*>(argument));
    default:
        return -ENOTTY;
    }
}
