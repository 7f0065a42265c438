#include "FakedKernel.h"

#include "FakedLibrary.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <sys/eventfd.h>
#include <thread>

namespace {

std::string newFolder()
{
    char name[] = "/tmp/faked-cards-XXXXXX";
    return mkdtemp(name);
}

std::string controlFile(const FakedCard& card)
{
    return "controlC" + std::to_string(card.number);
}

} // namespace

void FakedLock::lock() noexcept
{
    for (int tries = 0; _isHeld.exchange(true, std::memory_order_acquire); ++tries)
        if (tries > 100)
            FakedLibrary::sleep(20'000);
}

FakedKernel& FakedKernel::shared()
{
    static auto* const kernel = new FakedKernel; // never destroyed: its clock thread runs to the end
    static const bool isTidied = std::atexit([] {
                                     const Guard guard(kernel->_lock);
                                     for (const auto& [number, card] : kernel->_cards)
                                         kernel->_makeFiles(*card, false);
                                     rmdir(kernel->folder.c_str());
                                 }) == 0;
    (void)isTidied;
    return *kernel;
}

FakedKernel::FakedKernel() : folder(newFolder()), _wakeUps(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

// ---- Cards

/// The control device is created last and removed first, as by the kernel.
void FakedKernel::_makeFiles(const FakedCard& card, bool isThere) const
{
    std::vector<std::string> names;
    for (unsigned pcm = 0; pcm < card.options.pcmCount; ++pcm)
        for (const char direction : {'p', 'c'})
            if (direction == 'p' ? card.options.playback : card.options.capture)
                names.push_back("pcmC" + std::to_string(card.number) + "D" + std::to_string(pcm) + direction);
    names.push_back(controlFile(card));
    if (!isThere)
        std::ranges::reverse(names);
    for (const std::string& name : names) {
        const std::string path = folder + "/" + name;
        if (isThere)
            FakedLibrary::close(FakedLibrary::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0660));
        else
            unlink(path.c_str());
    }
}

void FakedKernel::_announce(FakedCard& card, unsigned control)
{
    snd_ctl_event event{};
    event.type = SNDRV_CTL_EVENT_ELEM;
    event.data.elem.mask = SNDRV_CTL_EVENT_MASK_VALUE;
    card.name(control, event.data.elem.id);
    for (const auto& [descriptor, each] : _controls)
        if (each.card == &card && each.isSubscribed)
            FakedLibrary::write(each.peer, &event, sizeof event);
}

// ---- Time

void FakedKernel::update(FakedCard& card)
{
    const int64_t now = fakedNow();
    double last = card.frameAt(now);
    for (const auto& [descriptor, pcm] : _pcms)
        if (card.options.isElastic && &pcm->card == &card)
            last = std::min(last, pcm->lastFrameBeforeOverload());
    if (last < card.frameAt(now))
        card.holdAt(last, now);
    for (const bool isCapture : {false, true}) // playback first: capture reads the played frames
        for (const auto& [descriptor, pcm] : _pcms)
            if (&pcm->card == &card && pcm->isCapture == isCapture)
                pcm->advance(now);
}

void FakedKernel::clockNeeded()
{
    if (!std::exchange(_hasClock, true))
        std::thread([this] { _runClock(); }).detach();
    _wakeClock();
}

void FakedKernel::_wakeClock() const
{
    const uint64_t one = 1;
    FakedLibrary::write(_wakeUps, &one, sizeof one);
}

void FakedKernel::_runClock()
{
    const sched_param priority{80};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
    for (;;) {
        uint64_t wakeUps = 0;
        FakedLibrary::read(_wakeUps, &wakeUps, sizeof wakeUps);
        int64_t next = fakedNow() + 1'000'000'000;
        {
            const Guard guard(_lock);
            for (const auto& [number, card] : _cards) {
                const bool isDue = std::ranges::any_of(_pcms, [&](const auto& each) {
                    return &each.second->card == card.get() && each.second->runs() &&
                           each.second->nextInterrupt() <= fakedNow();
                });
                if (isDue && !card->stands())
                    update(*card);
            }
            for (const auto& [descriptor, pcm] : _pcms)
                if (pcm->runs() && !pcm->card.stands())
                    next = std::min(next, std::max(pcm->nextInterrupt(), fakedNow() + 100'000));
        }
        pollfd wakeUp{_wakeUps, POLLIN, 0};
        timespec left = fakedTime(std::max<int64_t>(0, next - fakedNow()));
        FakedLibrary::poll(&wakeUp, 1, &left);
    }
}

// ---- Links

int FakedKernel::link(FakedPcm& pcm, int descriptor)
{
    const auto other = _pcms.find(descriptor);
    if (!pcm.card.options.canLink)
        return -ENOSYS;
    if (other == _pcms.end() || other->second->state() != pcm.state() || pcm.state() == SNDRV_PCM_STATE_OPEN)
        return -EBADFD;
    if (other->second->link)
        return -EALREADY;
    if (!pcm.link)
        pcm.link = ++_groups;
    other->second->link = pcm.link;
    return 0;
}

// ---- Files

int FakedKernel::open(const char* path, int flags)
{
    int number = -1;
    unsigned pcm = 0;
    char direction = 0;
    const bool isControl = std::sscanf(path, "/dev/snd/controlC%d", &number) == 1;
    if (!isControl && std::sscanf(path, "/dev/snd/pcmC%dD%u%c", &number, &pcm, &direction) != 3)
        return -ENOENT;
    const Guard guard(_lock);
    const auto card = _cards.find(number);
    if (card == _cards.end() || card->second->isGone)
        return -ENOENT;
    if (card->second->has(FakedFault::NoRights))
        return -EACCES;
    return isControl ? _openControl(*card->second, flags)
                     : _openPcm(*card->second, pcm, direction == 'c', flags);
}

int FakedKernel::_openControl(FakedCard& card, int flags)
{
    int ends[2];
    if (FakedLibrary::pipe(ends, O_CLOEXEC | (flags & O_NONBLOCK)) != 0)
        return -errno;
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    _controls[ends[0]] = {&card, ends[0], ends[1], 0};
    _isOurs.at(static_cast<size_t>(ends[0])) = true;
    return ends[0];
}

int FakedKernel::_openPcm(FakedCard& card, unsigned number, bool isCapture, int flags)
{
    if (number >= card.options.pcmCount || !(isCapture ? card.options.capture : card.options.playback))
        return -ENOENT;
    for (const auto& [descriptor, each] : _pcms)
        if (&each->card == &card && each->number == number && each->isCapture == isCapture)
            return -EBUSY;
    int ends[2];
    if (card.has(FakedFault::Busy))
        return -EBUSY;
    if (FakedLibrary::pipe(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return -errno;
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    const int descriptor = ends[isCapture ? 0 : 1];
    _pcms[descriptor] =
        std::make_unique<FakedPcm>(card, number, isCapture, descriptor, ends[isCapture ? 1 : 0], *this);
    fcntl(descriptor, F_SETFL, flags & O_NONBLOCK);
    _isOurs.at(static_cast<size_t>(descriptor)) = true;
    return descriptor;
}

void FakedKernel::close(int descriptor)
{
    if (!owns(descriptor))
        return;
    const Guard guard(_lock);
    _isOurs.at(static_cast<size_t>(descriptor)) = false;
    if (const auto pcm = _pcms.find(descriptor); pcm != _pcms.end()) {
        pcm->second->stop(SNDRV_PCM_STATE_SETUP);
        _pcms.erase(pcm);
    }
    if (const auto control = _controls.extract(descriptor))
        FakedLibrary::close(control.mapped().peer);
}

int FakedKernel::_controlIoctl(Control& control, unsigned long request, void* argument)
{
    FakedCard& card = *control.card;
    if (card.isGone)
        return -ENODEV;
    if (request == SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS) {
        int& wanted = *static_cast<int*>(argument);
        (wanted < 0 ? wanted : control.isSubscribed) = wanted < 0 ? control.isSubscribed : wanted;
        return 0;
    }
    if (request == SNDRV_CTL_IOCTL_PCM_INFO) {
        auto& info = *static_cast<snd_pcm_info*>(argument);
        const bool isCapture = info.stream == SNDRV_PCM_STREAM_CAPTURE;
        if (info.device >= card.options.pcmCount ||
            !(isCapture ? card.options.capture : card.options.playback))
            return -ENOENT;
        card.describe(info, info.device, isCapture);
        for (const auto& [descriptor, pcm] : _pcms)
            if (&pcm->card == &card && pcm->number == info.device && pcm->isCapture == isCapture)
                info.subdevices_avail = 0;
        return 0;
    }
    unsigned changed = 0;
    const int result = card.ioctl(request, argument, changed);
    if (changed)
        _announce(card, changed);
    return result;
}

int FakedKernel::ioctl(int descriptor, unsigned long request, void* argument)
{
    const Guard guard(_lock);
    ++ioctlCount;
    if (const auto control = _controls.find(descriptor); control != _controls.end())
        return _controlIoctl(control->second, request, argument);
    const auto pcm = _pcms.find(descriptor);
    if (pcm == _pcms.end())
        return -EBADF;
    return pcm->second->card.isGone ? -ENODEV : pcm->second->ioctl(request, argument);
}

int FakedKernel::mapped(int descriptor, unsigned long offset, off_t& place)
{
    const Guard guard(_lock);
    const auto pcm = _pcms.find(descriptor);
    if (pcm == _pcms.end() || pcm->second->card.isGone)
        return -ENODEV;
    const int file = pcm->second->mapped(offset, place);
    return file < 0 ? -ENXIO : file;
}

bool FakedKernel::look(int descriptor)
{
    if (!owns(descriptor))
        return true;
    const Guard guard(_lock);
    const auto pcm = _pcms.find(descriptor);
    if (pcm == _pcms.end())
        return true;
    pcm->second->showReadiness();
    unsigned& interrupted = pcm->second->card.interruptedWaits;
    return interrupted == 0 || interrupted-- == 0;
}

short FakedKernel::pollErrors(int descriptor)
{
    if (!owns(descriptor))
        return 0;
    const Guard guard(_lock);
    const auto pcm = _pcms.find(descriptor);
    const auto control = _controls.find(descriptor);
    const FakedCard* const card = pcm != _pcms.end()           ? &pcm->second->card
                                  : control != _controls.end() ? control->second.card
                                                               : nullptr;
    if (card && card->isGone)
        return POLLERR | POLLNVAL;
    return pcm != _pcms.end() && pcm->second->stateError() ? POLLERR : 0;
}
