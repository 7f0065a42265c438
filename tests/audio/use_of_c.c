#include "auclock.h"
#include "ausampler.h"
#include "autimebase.h"

/// Calls the C functions from C. Returns null, or the name of the part that failed.
const char* useOfC(void);

const char* useOfC(void)
{
    const autimebase slow = {3.0 / 125.0 * 1e9, 125, 3};
    if (autimebase_abstime_to_nanoseconds(&slow, 24000000) != 1000000000 ||
        autimebase_nanoseconds_to_abstime(&slow, 1000000000) != 24000000)
        return "the ratio of a time base";
    autimebase* const base = autimebase_create();
    const uint64_t before = autimebase_abstime();
    const int isLater = autimebase_abstime_to_nanoseconds(base, before) <= autimebase_nanoseconds(base);
    autimebase_destroy(base);
    if (!isLater || autimebase_frequency(autimebase_get_shared()) != 1e9)
        return "a time base over the host clock";

    auclock* const clock = auclock_create(1000, 7, 48000);
    const uint64_t first = auclock_abstime_to_sampletime(clock, auclock_epoch_abstime(clock));
    auclock_destroy(clock);
    struct ausampler* const sampler = ausampler_create(1);
    float in[4] = {1, 2, 3, 4}, out[4] = {0, 0, 0, 0};
    const struct ausampler_iovec from = {in, sizeof in[0]}, to = {out, sizeof out[0]};
    const uint32_t count = ausampler_read_iovec(sampler, &from, &to, 4, 48000, 48000);
    ausampler_destroy(sampler);
    return first == 7 && count == 4 && out[2] == 1 && out[3] == 2 ? NULL : "a clock or a sampler";
}
