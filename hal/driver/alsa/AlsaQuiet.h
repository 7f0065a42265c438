#pragma once

#include <alsa/asoundlib.h>

// The library's own declaration is outside its extern "C".
extern "C" snd_local_error_handler_t alsaSetLocalErrorHandler(snd_local_error_handler_t handler) noexcept
    __asm__("snd_lib_error_set_local");

/// While it lives, alsa-lib prints nothing to standard error from the calling thread. A handler that the application
/// itself has set for the process is left alone.
/// Threads: the one that made it.
class AlsaQuiet {
public:
    AlsaQuiet() noexcept : _before(alsaSetLocalErrorHandler([](auto...) {})) {}
    ~AlsaQuiet() { alsaSetLocalErrorHandler(_before); }
    AlsaQuiet(const AlsaQuiet&) = delete;
    AlsaQuiet& operator=(const AlsaQuiet&) = delete;

private:
    const snd_local_error_handler_t _before;
};
