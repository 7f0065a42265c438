#include <dxr/c.h>
#include <string.h>

/* What a program in C does: follows a device that disappears and returns, and plays on it. */

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

static int play(const dxr_cycle* cycle, void* user)
{
    *(uint64_t*)user = cycle->sample_time;
    return cycle->sample_time >= 4096; /* enough */
}

const char* useOfCInterface(void);

const char* useOfCInterface(void)
{
    char seen[64] = "";
    uint64_t played = 0;
    dxr_computer* computer;
    dxr_device *device, *again;
    dxr_follower* follower;
    dxr_runner* runner;
    dxr_simulated_device speakers = DXR_INIT(dxr_simulated_device);
    dxr_node node = DXR_INIT(dxr_node);

    speakers.uid = "speakers";
    speakers.outputs = 2;
    TRY(dxr_simulated_new(DXR_CLOCK_STEPPED, &computer));
    TRY(dxr_simulated_plug(computer, &speakers));
    TRY(dxr_follow(note, seen, &follower));
    TRY(dxr_device_with_uid("speakers", DXR_OUTPUT, &device));
    TRY(dxr_simulated_unplug(computer, "speakers"));
    TRY(dxr_simulated_settle(computer));
    TRY(dxr_simulated_plug(computer, &speakers));
    TRY(dxr_simulated_settle(computer));
    TRY(dxr_device_with_uid("speakers", DXR_OUTPUT, &again));
    if (again != device || strcmp(seen, "-+") != 0)
        return "one handle for a device, gone and returned";

    node.default_of = DXR_OUTPUT;
    node.io = play;
    node.user = &played;
    TRY(dxr_runner_new(&runner));
    TRY(dxr_runner_add(runner, &node));
    TRY(dxr_runner_start(runner));
    TRY(dxr_simulated_advance(computer, 200000000));
    TRY(dxr_runner_stop(runner));
    if (played < 4096)
        return "a callback on the default device";
    TRY(dxr_release(runner));
    TRY(dxr_release(device));
    TRY(dxr_release(again));
    TRY(dxr_release(follower));
    TRY(dxr_release(computer));
    return dxr_release(device) == DXR_ERROR_HANDLE ? NULL : "a stale handle";
}
