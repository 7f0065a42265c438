#include "FakedLibrary.h"

#include "FakedKernel.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// A definition that comes after this library's. Found when it is first needed, which may be before this library's own
/// constructors; by relaxed atomics, for every thread finds the same.
template <class Function> class Hidden {
public:
    constexpr explicit Hidden(const char* name) : _name(name) {}
    Function* get()
    {
        Function* found = _found.load(std::memory_order_relaxed);
        if (!found) {
            found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, _name));
            _found.store(found, std::memory_order_relaxed);
        }
        return found;
    }

private:
    const char* const _name;
    std::atomic<Function*> _found{nullptr};
};

using Open = int(const char*, int, ...);
using Map = void*(void*, size_t, int, int, int, off_t);

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

int openCards(Open* original, const char* path, int flags, mode_t mode)
{
    return isCards(path) ? result(FakedKernel::shared().open(path, flags)) : original(path, flags, mode);
}

void* mapCards(Map* original, void* at, size_t size, int protection, int flags, int descriptor, off_t offset)
{
    if (descriptor < 0 || !(flags & MAP_SHARED) || !FakedKernel::shared().owns(descriptor))
        return original(at, size, protection, flags, descriptor, offset);
    off_t place = 0;
    const int file =
        result(FakedKernel::shared().mapped(descriptor, static_cast<unsigned long>(offset), place));
    return file < 0 ? MAP_FAILED : original(at, size, protection, flags, file, place);
}

template <class Wait> int pollCards(pollfd* files, nfds_t count, Wait wait)
{
    for (nfds_t i = 0; i < count; ++i)
        if (files[i].fd >= 0 && !FakedKernel::shared().look(files[i].fd))
            return result(-EINTR);
    const int ready = wait();
    for (nfds_t i = 0; ready > 0 && i < count; ++i)
        if (files[i].fd >= 0 && files[i].revents)
            files[i].revents =
                static_cast<short>(files[i].revents | FakedKernel::shared().pollErrors(files[i].fd));
    return ready;
}

} // namespace

ssize_t FakedLibrary::read(int descriptor, void* to, size_t size)
{
    static constinit Hidden<ssize_t(int, void*, size_t)> original("read");
    return original.get()(descriptor, to, size);
}

ssize_t FakedLibrary::write(int descriptor, const void* from, size_t size)
{
    static constinit Hidden<ssize_t(int, const void*, size_t)> original("write");
    return original.get()(descriptor, from, size);
}

int FakedLibrary::close(int descriptor)
{
    static constinit Hidden<int(int)> original("close");
    return original.get()(descriptor);
}

int FakedLibrary::open(const char* path, int flags, mode_t mode)
{
    static constinit Hidden<Open> original("open");
    return original.get()(path, flags, mode);
}

void* FakedLibrary::mmap(size_t size, int file)
{
    static constinit Hidden<Map> original("mmap");
    return original.get()(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
}

void FakedLibrary::wait(int descriptor, long nanoseconds)
{
    pollfd file{descriptor, POLLIN, 0};
    const timespec time{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    static constinit Hidden<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> original("ppoll");
    original.get()(&file, 1, &time, nullptr);
}

void FakedLibrary::sleep(long nanoseconds)
{
    const timespec time{0, nanoseconds};
    static constinit Hidden<int(const timespec*, timespec*)> original("nanosleep");
    original.get()(&time, nullptr);
}

// ---- In place of the C library's

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
    static constinit Hidden<Open> original("open");
    return openCards(original.get(), path, flags, mode);
}

/// The same function where file offsets have 64 bits anyway.
FAKED_EXPORT int open64(const char* path, int flags, ...) __attribute__((alias("open")));

// The forms that check sizes, which alsa-lib calls.
FAKED_EXPORT int __open_2(const char* path, int flags)
{
    return open(path, flags);
}

FAKED_EXPORT int __open64_2(const char* path, int flags)
{
    return open64(path, flags);
}

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
    static constinit Hidden<int(int, unsigned long, ...)> original("ioctl");
    return original.get()(descriptor, request, argument);
}

FAKED_EXPORT void* mmap(void* at, size_t size, int protection, int flags, int descriptor,
                        off_t offset) noexcept
{
    static constinit Hidden<Map> original("mmap");
    return mapCards(original.get(), at, size, protection, flags, descriptor, offset);
}

FAKED_EXPORT void* mmap64(void* at, size_t size, int protection, int flags, int descriptor,
                          off_t offset) noexcept
{
    static constinit Hidden<Map> original("mmap64");
    return mapCards(original.get(), at, size, protection, flags, descriptor, offset);
}

FAKED_EXPORT int poll(pollfd* files, nfds_t count, int milliseconds)
{
    static constinit Hidden<int(pollfd*, nfds_t, int)> original("poll");
    return pollCards(files, count, [&] { return original.get()(files, count, milliseconds); });
}

FAKED_EXPORT int __poll_chk(pollfd* files, nfds_t count, int milliseconds, size_t)
{
    return poll(files, count, milliseconds);
}

FAKED_EXPORT ssize_t read(int descriptor, void* to, size_t size)
{
    if (FakedKernel::shared().pollErrors(descriptor) & POLLNVAL)
        return result(-ENODEV);
    return FakedLibrary::read(descriptor, to, size);
}

FAKED_EXPORT ssize_t __read_chk(int descriptor, void* to, size_t size, size_t)
{
    return read(descriptor, to, size);
}

FAKED_EXPORT int inotify_add_watch(int descriptor, const char* path, uint32_t mask) noexcept
{
    static constinit Hidden<int(int, const char*, uint32_t)> original("inotify_add_watch");
    return original.get()(descriptor, isCards(path) ? FakedKernel::shared().folder.c_str() : path, mask);
}

} // extern "C"
