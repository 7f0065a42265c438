// Replaces functions of the C library.
#include "FakedLibrary.h"

#include "FakedKernel.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace {

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

} // namespace

extern "C" {

FAKED_EXPORT int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list list;
        va_start(list, flags);
        mode = va_arg(list, mode_t);
        va_end(list);
    }
    return isCards(path) ? result(FakedKernel::shared().open(path)) : FakedLibrary::open(path, flags, mode);
}

/// File offsets always have 64 bits here, so both are the same.
FAKED_EXPORT int open64(const char* path, int flags, ...) __attribute__((alias("open")));

// The size-checking variants, which alsa-lib calls.
FAKED_EXPORT int __open_2(const char* path, int flags)
{
    return open(path, flags);
}

FAKED_EXPORT int __open64_2(const char* path, int flags) __attribute__((alias("__open_2")));

FAKED_EXPORT int close(int descriptor)
{
    FakedKernel::shared().close(descriptor);
    return FakedLibrary::close(descriptor);
}

FAKED_EXPORT int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    const unsigned long type = (request >> 8) & 255;
    if ((type == 'A' || type == 'U') && FakedKernel::shared().owns(descriptor))
        return result(FakedKernel::shared().ioctl(descriptor, request, argument));
    return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

/// Maps a PCM's status, the program's positions or the ring.
FAKED_EXPORT void* mmap(void* at, size_t size, int protection, int flags, int descriptor,
                        off_t offset) noexcept
{
    if (descriptor < 0 || !(flags & MAP_SHARED) || !FakedKernel::shared().owns(descriptor))
        return FakedLibrary::mmap(at, size, protection, flags, descriptor, offset);
    constexpr off_t page = FakedPcm::page;
    off_t place = 2 * page + offset;
    if (offset == SNDRV_PCM_MMAP_OFFSET_STATUS_OLD || offset == SNDRV_PCM_MMAP_OFFSET_STATUS_NEW)
        place = 0;
    if (offset == SNDRV_PCM_MMAP_OFFSET_CONTROL_OLD || offset == SNDRV_PCM_MMAP_OFFSET_CONTROL_NEW)
        place = page;
    const int file = result(FakedKernel::shared().mapped(descriptor));
    return file < 0 ? MAP_FAILED : FakedLibrary::mmap(at, size, protection, flags, file, place);
}

FAKED_EXPORT void* mmap64(void*, size_t, int, int, int, off_t) noexcept __attribute__((alias("mmap")));

FAKED_EXPORT int poll(pollfd* files, nfds_t count, int milliseconds)
{
    const int64_t end = milliseconds < 0 ? INT64_MAX : fakedNow() + int64_t{milliseconds} * 1'000'000;
    for (;;) {
        int64_t next = end;
        for (nfds_t i = 0; i < count; ++i)
            if (!FakedKernel::shared().look(files[i].fd, next))
                return result(-EINTR);
        timespec left = fakedTime(std::max<int64_t>(0, next - fakedNow()));
        const int ready = FakedLibrary::poll(files, count, next == INT64_MAX ? nullptr : &left);
        if (ready == 0 && next < end)
            continue;
        for (nfds_t i = 0; ready > 0 && i < count; ++i)
            if (files[i].revents)
                files[i].revents =
                    static_cast<short>(files[i].revents | FakedKernel::shared().pollErrors(files[i].fd));
        return ready;
    }
}

FAKED_EXPORT int __poll_chk(pollfd* files, nfds_t count, int milliseconds, size_t)
{
    return poll(files, count, milliseconds);
}

FAKED_EXPORT ssize_t read(int descriptor, void* to, size_t size)
{
    return FakedKernel::shared().owns(descriptor)
               ? result(FakedKernel::shared().read(descriptor, *static_cast<snd_ctl_event*>(to)))
               : FakedLibrary::read(descriptor, to, size);
}

FAKED_EXPORT ssize_t __read_chk(int descriptor, void* to, size_t size, size_t)
{
    return read(descriptor, to, size);
}

FAKED_EXPORT int inotify_add_watch(int descriptor, const char* path, uint32_t mask) noexcept
{
    return static_cast<int>(syscall(SYS_inotify_add_watch, descriptor,
                                    isCards(path) ? FakedKernel::shared().folder.c_str() : path, mask));
}

} // extern "C"
