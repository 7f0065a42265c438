#include "FakedKernel.h"

#include "FakedLibrary.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/eventfd.h>

namespace {

constexpr int64_t shortestWait = 100'000, longestWait = 10'000'000; // nanoseconds; a test may change a card

std::string newFolder()
{
    char name[] = "/tmp/faked-cards-XXXXXX";
    return mkdtemp(name);
}

} // namespace

void FakedLock::lock() noexcept
{
    timespec pause{0, 20'000};
    for (int tries = 0; _isHeld.exchange(true, std::memory_order_acquire); ++tries)
        if (tries > 100)
            FakedLibrary::poll(nullptr, 0, &pause);
}

FakedKernel& FakedKernel::shared()
{
    static auto* const kernel = new FakedKernel; // never destroyed: programs use it to the end
    return *kernel;
}

FakedKernel::FakedKernel() : folder(newFolder())
{
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(shared().folder, ignored);
    });
}

void FakedKernel::_announce(const FakedCard& card, unsigned number)
{
    for (auto& [descriptor, control] : _controls) {
        if (control.card.get() != &card || !control.isSubscribed)
            continue;
        control.changes.push_back(number);
        FakedLibrary::setFull(descriptor, true);
    }
}

// ---- Files

int FakedKernel::open(const char* path)
{
    int number = -1;
    unsigned pcm = 0;
    char direction = 0;
    const bool isControl = std::sscanf(path, "/dev/snd/controlC%d", &number) == 1;
    if (!isControl && std::sscanf(path, "/dev/snd/pcmC%dD%u%c", &number, &pcm, &direction) != 3)
        return -ENOENT;
    const Guard guard(_lock);
    const auto found = _cards.find(number);
    if (found == _cards.end() || found->second->isGone)
        return -ENOENT;
    const std::shared_ptr<FakedCard>& card = found->second;
    snd_pcm_info info{};
    const bool isCapture = direction == 'c';
    if (card->has(FakedFault::NoRights))
        return -EACCES;
    if (!isControl && !card->hasPcm(pcm, isCapture))
        return -ENOENT;
    card->describe(info, pcm, isCapture);
    if (!isControl && info.subdevices_avail == 0)
        return -EBUSY;
    const auto descriptor = static_cast<int>(syscall(SYS_eventfd2, 0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (descriptor < 0)
        return -errno;
    _isOurs.at(static_cast<size_t>(descriptor)) = true;
    if (isControl)
        _controls[descriptor] = {card, 0, {}};
    else
        _pcms[descriptor] = std::make_unique<FakedPcm>(card, pcm, isCapture, descriptor);
    return descriptor;
}

void FakedKernel::close(int descriptor)
{
    if (!owns(descriptor))
        return;
    const Guard guard(_lock);
    _isOurs.at(static_cast<size_t>(descriptor)) = false;
    _pcms.erase(descriptor);
    _controls.erase(descriptor);
}

int FakedKernel::_controlIoctl(Control& control, unsigned long request, void* argument)
{
    if (request == SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS) {
        int& wanted = *static_cast<int*>(argument);
        (wanted < 0 ? wanted : control.isSubscribed) = wanted < 0 ? control.isSubscribed : wanted;
        return 0;
    }
    unsigned changed = 0;
    const int result = control.card->ioctl(request, argument, changed);
    if (changed)
        _announce(*control.card, changed);
    return result;
}

int FakedKernel::ioctl(int descriptor, unsigned long request, void* argument)
{
    const Guard guard(_lock);
    ++_ioctlCount;
    if (const auto control = _controls.find(descriptor); control != _controls.end())
        return control->second.card->isGone ? -ENODEV : _controlIoctl(control->second, request, argument);
    FakedPcm& pcm = *_pcms.at(descriptor);
    return pcm.card->isGone ? -ENODEV : pcm.ioctl(request, argument);
}

int FakedKernel::read(int descriptor, snd_ctl_event& event)
{
    const Guard guard(_lock);
    Control& control = _controls.at(descriptor);
    if (control.card->isGone)
        return -ENODEV;
    if (control.changes.empty())
        return -EAGAIN;
    event = {};
    event.type = SNDRV_CTL_EVENT_ELEM;
    event.data.elem.mask = SNDRV_CTL_EVENT_MASK_VALUE;
    control.card->name(control.changes.front(), event.data.elem.id);
    control.changes.pop_front();
    FakedLibrary::setFull(descriptor, !control.changes.empty());
    return sizeof event;
}

int FakedKernel::mapped(int descriptor)
{
    const Guard guard(_lock);
    const auto pcm = _pcms.find(descriptor);
    return pcm == _pcms.end() || pcm->second->card->isGone ? -ENODEV : pcm->second->file();
}

bool FakedKernel::look(int descriptor, int64_t& next)
{
    if (!owns(descriptor))
        return true;
    const Guard guard(_lock);
    const auto found = _pcms.find(descriptor);
    if (found == _pcms.end())
        return true;
    FakedPcm& pcm = *found->second;
    unsigned& interrupted = pcm.card->interruptedWaits;
    if (interrupted > 0) {
        --interrupted;
        return false;
    }
    const int64_t now = fakedNow();
    if (pcm.nextInterrupt() <= now)
        pcm.card->update();
    pcm.showReadiness();
    next = std::min(next, std::clamp(pcm.nextInterrupt(), now + shortestWait, now + longestWait));
    return true;
}

short FakedKernel::pollErrors(int descriptor)
{
    if (!owns(descriptor))
        return 0;
    const Guard guard(_lock);
    const auto pcm = _pcms.find(descriptor);
    if (pcm == _pcms.end())
        return 0;
    if (pcm->second->card->isGone)
        return POLLERR | POLLNVAL;
    return pcm->second->stateError() ? POLLERR : 0;
}
