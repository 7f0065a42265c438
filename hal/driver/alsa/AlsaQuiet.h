#pragma once

#include <alsa/asoundlib.h>

// alsa-lib declares this function outside its extern "C".
extern "C" snd_local_error_handler_t alsaSetLocalErrorHandler(snd_local_error_handler_t handler) noexcept
    __asm__("snd_lib_error_set_local");

/// During its lifetime, alsa-lib prints nothing to standard error from the calling thread. An error handler
/// that the application has set for the process is not changed.
/// Threads: the one that created it.
class AlsaQuiet {
public:
    AlsaQuiet() noexcept : _before(alsaSetLocalErrorHandler([](auto...) {})) {}
    ~AlsaQuiet() { alsaSetLocalErrorHandler(_before); }
    AlsaQuiet(const AlsaQuiet&) = delete;
    AlsaQuiet& operator=(const AlsaQuiet&) = delete;

private:
    const snd_local_error_handler_t _before;
};
