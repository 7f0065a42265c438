// Replaces functions of the C library.
#include "FakedLibrary.h"

#include "FakedKernel.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>
#include <sys/eventfd.h>

namespace {

constexpr int64_t minWait = 100'000, maxWait = 10'000'000; // ns; a test may change the card meanwhile

bool isCards(const char* path)
{
    return path && std::strncmp(path, "/dev/snd", 8) == 0;
}

int result(int value)
{
    if (value >= 0)
        return value;
    errno = -value;
    return -1;
}

/// Null for a control device. The caller holds the lock.
FakedPcm* pcmOf(int descriptor)
{
    const auto pcm = kernel().pcms.find(descriptor);
    return pcm == kernel().pcms.end() ? nullptr : pcm->second.get();
}

/// A card's file in /dev/snd.
struct CardFile {
    std::shared_ptr<FakedCard> card;
    int number = -1;
    bool isControl = false, isCapture = false;
    unsigned pcm = 0;
};

/// Returns 0 if the file is there and may be opened. The caller holds the lock.
int find(const char* path, CardFile& file)
{
    char direction = 0;
    file.isControl = std::sscanf(path, "/dev/snd/controlC%d", &file.number) == 1;
    if (!file.isControl &&
        std::sscanf(path, "/dev/snd/pcmC%dD%u%c", &file.number, &file.pcm, &direction) != 3)
        return -ENOENT;
    file.isCapture = direction == 'c';
    const auto found = kernel().cards.find(file.number);
    file.card = found == kernel().cards.end() ? nullptr : found->second;
    if (!file.card || file.card->isGone ||
        (!file.isControl && !file.card->hasPcm(file.pcm, file.isCapture)) ||
        (file.isCapture && file.card->options.captureError == ENOENT))
        return -ENOENT;
    return file.card->has(FakedFault::NoRights) ? -EACCES : 0;
}

int openCard(const char* path)
{
    const FakedKernel::Guard guard(kernel().lock);
    CardFile file;
    if (const int error = find(path, file))
        return error;
    const auto& [card, number, isControl, isCapture, pcm] = file;
    if (isCapture && card->options.captureError && card->options.captureError != ENOMEM)
        return -card->options.captureError;
    if (unsigned& failures = card->options.failedOpens.at(isControl ? 0 : 1); failures > 0) {
        --failures;
        return -EMFILE;
    }
    if (!isControl && card->isInUse(pcm, isCapture))
        return -EBUSY;
    const auto descriptor = static_cast<int>(syscall(SYS_eventfd2, 0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (descriptor < 0)
        return -errno;
    kernel().isOurs.at(static_cast<size_t>(descriptor)) = true;
    if (isControl) {
        kernel().controls[descriptor].card = card;
        ++card->controlOpens;
        const std::string watched = kernel().folder + "/controlC" + std::to_string(number);
        FakedLibrary::close(FakedLibrary::open(watched.c_str(), O_RDONLY | O_CLOEXEC, 0));
    } else {
        const std::string watched = kernel().folder + (path + std::strlen("/dev/snd"));
        FakedLibrary::close(FakedLibrary::open(watched.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0660));
        kernel().pcms[descriptor] = std::make_unique<FakedPcm>(card, pcm, isCapture, descriptor);
    }
    return descriptor;
}

/// Reads the next change of a control.
int readChange(int descriptor, snd_ctl_event& event)
{
    const FakedKernel::Guard guard(kernel().lock);
    FakedKernel::Control& control = kernel().controls.at(descriptor);
    if (control.card->isGone)
        return -ENODEV;
    if (control.changes.empty())
        return -EAGAIN;
    event = {};
    event.type = SNDRV_CTL_EVENT_ELEM;
    event.data.elem.mask = control.changes.front().second;
    control.card->name(control.changes.front().first, event.data.elem.id);
    control.changes.pop_front();
    FakedLibrary::setFull(descriptor, !control.changes.empty());
    return sizeof event;
}

/// Called before a poll: lowers `next` to the time at which a PCM may become ready.
void look(int descriptor, int64_t& next)
{
    if (!kernel().owns(descriptor))
        return;
    const FakedKernel::Guard guard(kernel().lock);
    FakedPcm* const pcm = pcmOf(descriptor);
    if (!pcm)
        return;
    const int64_t now = fakedNow();
    if (pcm->nextInterrupt() <= now)
        pcm->card->update();
    pcm->showReadiness(); // positions in mapped memory may have moved
    next = std::min(next, std::clamp(pcm->nextInterrupt(), now + minWait, now + maxWait));
}

/// Events that poll() reports besides readiness.
int pollErrors(int descriptor)
{
    if (!kernel().owns(descriptor))
        return 0;
    const FakedKernel::Guard guard(kernel().lock);
    const FakedPcm* const pcm = pcmOf(descriptor);
    if (pcm && pcm->card->isGone)
        return POLLERR | POLLNVAL;
    return pcm && pcm->stateError() ? POLLERR : 0;
}

} // namespace

extern "C" {

FAKED_EXPORT int open(const char* path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(list, mode_t) : 0;
    va_end(list);
    return isCards(path) ? result(openCard(path)) : FakedLibrary::open(path, flags, mode);
}

// The size-checking variants, which alsa-lib calls.
FAKED_EXPORT int __open_2(const char* path, int flags)
{
    return open(path, flags);
}

FAKED_EXPORT int access(const char* path, int mode) noexcept
{
    if (!isCards(path))
        return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
    const FakedKernel::Guard guard(kernel().lock);
    CardFile file;
    return result(find(path, file));
}

FAKED_EXPORT int close(int descriptor)
{
    if (kernel().owns(descriptor)) {
        const FakedKernel::Guard guard(kernel().lock);
        kernel().isOurs.at(static_cast<size_t>(descriptor)) = false;
        kernel().pcms.erase(descriptor);
        kernel().controls.erase(descriptor);
    }
    return FakedLibrary::close(descriptor);
}

FAKED_EXPORT int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (!kernel().owns(descriptor))
        return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
    const FakedKernel::Guard guard(kernel().lock);
    FakedPcm* const pcm = pcmOf(descriptor);
    FakedCard& card = pcm ? *pcm->card : *kernel().controls.at(descriptor).card;
    if (card.options.ioctlsUntilUnplug > 0 && --card.options.ioctlsUntilUnplug == 0)
        kernel().unplug(card);
    if (card.isGone)
        return result(-ENODEV);
    const int done = pcm ? pcm->ioctl(request, argument) : card.ioctl(request, argument);
    if (request == SNDRV_CTL_IOCTL_ELEM_WRITE && done > 0)
        kernel().announce(card, static_cast<snd_ctl_elem_value*>(argument)->id.numid);
    return result(done);
}

/// Maps a PCM's status, the program's positions or the ring.
FAKED_EXPORT void* mmap(void* at, size_t size, int protection, int flags, int descriptor,
                        off_t offset) noexcept
{
    if (!kernel().owns(descriptor))
        return FakedLibrary::mmap(at, size, protection, flags, descriptor, offset);
    const FakedKernel::Guard guard(kernel().lock);
    constexpr off_t page = FakedPcm::page;
    off_t place = 2 * page + offset;
    if (offset == SNDRV_PCM_MMAP_OFFSET_STATUS_OLD || offset == SNDRV_PCM_MMAP_OFFSET_STATUS_NEW)
        place = 0;
    if (offset == SNDRV_PCM_MMAP_OFFSET_CONTROL_OLD || offset == SNDRV_PCM_MMAP_OFFSET_CONTROL_NEW)
        place = page;
    const FakedPcm* const pcm = pcmOf(descriptor);
    const int file = !pcm || pcm->card->isGone ? -1 : pcm->file(); // -1: mmap() fails
    return FakedLibrary::mmap(at, size, protection, flags, file, place);
}

FAKED_EXPORT int poll(pollfd* files, nfds_t count, int milliseconds)
{
    const int64_t end =
        milliseconds < 0 ? INT64_MAX : fakedNow() + int64_t{milliseconds} * 1'000'000 / kernel().haste;
    for (;;) {
        int64_t next = end;
        for (const pollfd& file : std::span(files, count))
            look(file.fd, next);
        timespec left = fakedTime(std::max<int64_t>(0, next - fakedNow()));
        const int ready = FakedLibrary::poll(files, count, next == INT64_MAX ? nullptr : &left);
        if (ready == 0 && next < end)
            continue;
        for (pollfd& file : std::span(files, ready > 0 ? count : 0))
            file.revents = static_cast<short>(file.revents | (file.revents ? pollErrors(file.fd) : 0));
        return ready;
    }
}

FAKED_EXPORT int __poll_chk(pollfd* files, nfds_t count, int milliseconds, size_t)
{
    return poll(files, count, milliseconds);
}

FAKED_EXPORT ssize_t read(int descriptor, void* to, size_t size)
{
    return kernel().owns(descriptor) ? result(readChange(descriptor, *static_cast<snd_ctl_event*>(to)))
                                     : syscall(SYS_read, descriptor, to, size);
}

FAKED_EXPORT int inotify_add_watch(int descriptor, const char* path, uint32_t mask) noexcept
{
    return static_cast<int>(
        syscall(SYS_inotify_add_watch, descriptor, isCards(path) ? kernel().folder.c_str() : path, mask));
}

} // extern "C"
