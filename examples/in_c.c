/* In C: records the default input, plays a tone on two outputs, and continues while a device is unplugged and
   plugged in again: in_c [--simulated] */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <dxr/c.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static void try(dxr_status status)
{
    if (status == DXR_OK)
        return;
    fprintf(stderr, "in_c: %s\n", dxr_error_text());
    exit(1);
}

/* Called in real time. The output depends on the sample time alone, so that both devices play the same. */
static int play(const dxr_cycle* cycle, void* user)
{
    uint32_t frame, channel;
    (void)user;
    for (frame = 0; frame < cycle->frames; ++frame) {
        const float sawtooth = (float)((cycle->sample_time + frame) % 109) / 109.0F - 0.5F;
        for (channel = 0; channel < cycle->channels; ++channel)
            cycle->samples[frame * cycle->channels + channel] = 0.2F * sawtooth;
    }
    return 0;
}

static void report(dxr_device* device, dxr_change change, void* user)
{
    const dxr_device_info* info;
    (void)user;
    if (change != DXR_UPDATED && dxr_device_get_info(device, &info) == DXR_OK) {
        printf("%-12s %s\n", change == DXR_CONNECTED ? "connected" : "disconnected", info->uid);
        dxr_free(info);
    }
}

static void wait_ms(long milliseconds)
{
    struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    nanosleep(&time, NULL);
}

static dxr_simulated_device simulated(const char* uid, uint32_t inputs, uint32_t outputs, double rate)
{
    dxr_simulated_device device = DXR_INIT(dxr_simulated_device);
    device.uid = device.name = uid;
    device.inputs = inputs;
    device.outputs = outputs;
    device.sample_rate = rate;
    device.tone = inputs ? 440.0 : 0.0;
    return device;
}

int main(int argc, char** argv)
{
    dxr_computer* computer = NULL;
    dxr_simulated_device mic = simulated("mic", 1, 0, 48000.0), one = simulated("one", 0, 2, 48000.0),
                         two = simulated("two", 0, 2, 44100.0);
    dxr_follower* follower;
    dxr_runner* runner;
    dxr_sound* sound;
    dxr_device* const* devices;
    size_t count, i, outputs = 0;
    dxr_node input = DXR_INIT(dxr_node);
    dxr_runner_state state = DXR_INIT(dxr_runner_state);
    const uint32_t first = 1;
    uint64_t recorded;
    float *samples, loudest = 0.0F;

    if (argc > 1 && strcmp(argv[1], "--simulated") == 0) {
        try(dxr_simulated_new(DXR_CLOCK_REAL_TIME, &computer));
        try(dxr_simulated_plug(computer, &mic));
        try(dxr_simulated_plug(computer, &one));
        try(dxr_simulated_plug(computer, &two));
    }
    try(dxr_follow(report, NULL, &follower));
    try(dxr_runner_new(&runner));
    try(dxr_runner_set_format(runner, 256, 48000.0));
    try(dxr_sound_new(2 * 48000, 1, 48000.0, 0, &sound));
    input.default_of = DXR_INPUT;
    input.channels = &first;
    input.channel_count = 1;
    input.sound = sound;
    try(dxr_runner_add(runner, &input));
    try(dxr_devices(&devices, &count));
    for (i = 0; i < count && outputs < 2; ++i) {
        const dxr_device_info* info;
        dxr_node output = DXR_INIT(dxr_node);
        output.device = devices[i];
        output.io = play;
        try(dxr_device_get_info(devices[i], &info));
        if (info->direction == DXR_OUTPUT) {
            try(dxr_runner_add(runner, &output));
            printf("playing on   %s at %g Hz\n", info->uid, info->sample_rate);
            ++outputs;
        }
        try(dxr_free(info));
    }
    try(dxr_free(devices));
    try(dxr_runner_start(runner));
    wait_ms(500);
    if (computer) {
        try(dxr_simulated_unplug(computer, "two"));
        wait_ms(300);
        try(dxr_simulated_plug(computer, &two));
    }
    wait_ms(1500);
    try(dxr_runner_get_state(runner, &state));
    try(dxr_runner_stop(runner));
    try(dxr_sound_position(sound, &recorded));
    try(dxr_sound_samples(sound, &samples));
    for (i = 0; i < recorded; ++i)
        loudest = samples[i] > loudest ? samples[i] : loudest;
    printf("recorded     %lu frames, up to %.2f; %lu cycles, %lu restarts\n", (unsigned long)recorded,
           loudest, (unsigned long)state.cycles, (unsigned long)state.restarts);
    dxr_release(runner);
    dxr_release(sound);
    dxr_release(follower);
    dxr_release(computer);
    return 0;
}
