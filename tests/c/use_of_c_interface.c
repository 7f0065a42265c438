#include "UseOfCInterface.h"

#include <dxr/c.h>
#include <string.h>

/* What a program in C does: plays a sound on one end of a cable, records it from the other, and follows a replug. */

#define TRY(call)                                                                                            \
    do {                                                                                                     \
        if ((call) != DXR_OK)                                                                                \
            return dxr_error_text();                                                                         \
    } while (0)

static void note(dxr_device* device, dxr_change change, void* user)
{
    char* seen = (char*)user;
    const dxr_device_info* info = NULL;
    if (dxr_device_get_info(device, &info) == DXR_OK && info->direction == DXR_OUTPUT)
        strcat(seen, change == DXR_CONNECTED ? "+" : change == DXR_DISCONNECTED ? "-" : "");
    dxr_free(info);
}

static int fill(const dxr_cycle* cycle, void* user)
{
    uint32_t i;
    int* wasSilent = (int*)user;
    for (i = 0; i < cycle->frames * cycle->channels; ++i) {
        *wasSilent = *wasSilent && cycle->samples[i] == 0.0F;
        cycle->samples[i] = 0.25F;
    }
    return cycle->sample_time >= 4096; /* enough */
}

const char* useOfCInterface(void)
{
    char seen[64] = "";
    int wasSilent = 1, i;
    uint64_t done = 0;
    float* heard = NULL;
    dxr_computer* computer;
    dxr_device *device, *again;
    dxr_follower* follower;
    dxr_runner* runner;
    dxr_sound* sound;
    dxr_runner_state state = DXR_INIT(dxr_runner_state);
    dxr_simulated_device cable = DXR_INIT(dxr_simulated_device);
    dxr_node in = DXR_INIT(dxr_node), out = DXR_INIT(dxr_node);

    cable.uid = "cable";
    cable.inputs = cable.outputs = 2;
    cable.loops_back = 1;
    TRY(dxr_simulated_new(DXR_CLOCK_STEPPED, &computer));
    TRY(dxr_simulated_plug(computer, &cable));
    TRY(dxr_follow(note, seen, &follower));
    TRY(dxr_device_with_uid("cable", DXR_OUTPUT, &device));
    TRY(dxr_simulated_unplug(computer, "cable"));
    TRY(dxr_simulated_settle(computer));
    TRY(dxr_simulated_plug(computer, &cable));
    TRY(dxr_simulated_settle(computer));
    TRY(dxr_device_with_uid("cable", DXR_OUTPUT, &again));
    if (again != device || strcmp(seen, "-+") != 0)
        return "one handle for a device, gone and back";

    TRY(dxr_sound_new(8192, 2, 48000.0, 0, &sound));
    in.default_of = DXR_INPUT;
    in.sound = sound;
    out.device = device;
    out.io = fill;
    out.user = &wasSilent;
    TRY(dxr_runner_new(&runner));
    TRY(dxr_runner_set_format(runner, 256, 48000.0));
    TRY(dxr_runner_add(runner, &in));
    TRY(dxr_runner_add(runner, &out));
    TRY(dxr_runner_start(runner));
    TRY(dxr_simulated_advance(computer, 200000000));
    TRY(dxr_runner_stop(runner));
    TRY(dxr_runner_get_state(runner, &state));
    TRY(dxr_sound_samples(sound, &heard));
    TRY(dxr_sound_position(sound, &done));
    for (i = 0; i < 8192 && heard[i] == 0.0F;)
        ++i;
    if (!wasSilent || state.is_running || done < 4096 || i == 8192 || heard[4096] != 0.25F)
        return "what was played is recorded, and was silence to begin with";
    TRY(dxr_release(runner));
    TRY(dxr_release(sound));
    TRY(dxr_release(device));
    TRY(dxr_release(again));
    TRY(dxr_release(follower));
    TRY(dxr_release(computer));
    return dxr_release(device) == DXR_ERROR_HANDLE ? NULL : "a stale handle";
}
