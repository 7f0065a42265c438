/* dxr in C99: audio devices, and audio on one or several of them at once. The stable interface of the library.
 *
 * Handles   are counted and checked. A handle is a number, not an address, and is never given out twice: one that was
 *           released, or is of another kind, is refused. A device has one handle for as long as anyone holds it, so two
 *           are the same device when they are equal. dxr_retain() and dxr_release() take every kind.
 * Memory    that a function returns through a `const … **` is given back with dxr_free().
 * Structs   begin with their size, which the caller sets to sizeof: fields are only ever added at the end. Fields that are
 *           zero have their default. DXR_INIT does both: `dxr_node node = DXR_INIT(dxr_node);`
 * Text      is UTF-8.
 * Errors    are statuses. dxr_error_text() has the sentence for the last one on the calling thread. With any argument a
 *           function returns: it does not abort, and no C++ exception leaves it.
 * Threads   any, also those the library did not make. Functions wait for locks and for the hardware, two seconds at most.
 * Callbacks for changes are called one at a time on the library's thread "dxr.events", where every function may be called.
 *           Callbacks for audio (dxr_io) are called in real time: on the IO thread of a device, a few milliseconds before
 *           their samples are due. There: no lock, no allocation, no file, no waiting, and of this header only dxr_now(),
 *           dxr_version() and dxr_error_text(); others return DXR_ERROR_THREAD. (dxr_release() works, and waits for a lock: for
 *           languages that collect garbage anywhere.) Callbacks must not throw.
 * dlclose() does not unload the library: its threads run until the process ends.
 * fork()    ends dxr in the child of a process that has used it: functions return DXR_ERROR_FORKED. exec() is fine.
 */
#ifndef DXR_C_H
#define DXR_C_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define DXR_C_API __attribute__((visibility("default")))
#else
#define DXR_C_API
#endif
#ifdef __cplusplus
#define DXR_INIT(type)                                                                                       \
    []() {                                                                                                   \
        type dxr_made = type();                                                                              \
        dxr_made.size = sizeof(type);                                                                        \
        return dxr_made;                                                                                     \
    }()
extern "C" {
#else
#define DXR_INIT(type)                                                                                       \
    {                                                                                                        \
        .size = sizeof(type)                                                                                 \
    }
#endif

enum {
    DXR_OK = 0,
    DXR_ERROR_ARGUMENT = 1, /* null, out of range, or arguments that exclude each other */
    DXR_ERROR_HANDLE = 2,   /* released, of another kind, or never a handle */
    DXR_ERROR_TEXT = 3,     /* not UTF-8, or not of the form that is wanted */
    DXR_ERROR_NOT_FOUND = 4,
    DXR_ERROR_STATE = 5,    /* not now: the runner runs, the device is there already, it is not connected */
    DXR_ERROR_REFUSED = 6,  /* by the hardware */
    DXR_ERROR_MEMORY = 7,   /* or threads */
    DXR_ERROR_THREAD = 8,   /* not in an audio callback */
    DXR_ERROR_FORKED = 9,   /* not in the child of fork() */
    DXR_ERROR_INTERNAL = 10 /* a fault of the library */
};
typedef int dxr_status; /* DXR_OK or an error; int, so that its size is the same for every compiler */

enum { DXR_INPUT = 1, DXR_OUTPUT = 2 };
typedef int dxr_direction;
enum { DXR_CONNECTED = 1, DXR_DISCONNECTED = 2, DXR_UPDATED = 3 };
typedef int dxr_change;
enum {
    DXR_QUALITY_STANDARD = 0, /* lowest delay and cost; -31 dB of error at 10 kHz from 44.1 to 48 kHz */
    DXR_QUALITY_HIGH = 1      /* error below -110 dB; 32 frames of delay */
};
typedef int dxr_quality;
enum {
    DXR_CLOCK_REAL_TIME = 1, /* as the host's */
    DXR_CLOCK_STEPPED = 2    /* only when dxr_simulated_advance() is called, on the calling thread */
};
typedef int dxr_clock;

typedef struct dxr_device dxr_device;     /* one direction of an audio device, also while it is absent */
typedef struct dxr_follower dxr_follower; /* a registered dxr_device_callback */
typedef struct dxr_sound dxr_sound;       /* frames in memory, to play or to record into */
typedef struct dxr_runner dxr_runner;     /* audio on devices */
typedef struct dxr_computer dxr_computer; /* simulated hardware */

/* ---- The library */

/* "0.1.0". */
DXR_C_API const char* dxr_version(void);
/* What went wrong in the last call on this thread that did not return DXR_OK; valid until the next such call. */
DXR_C_API const char* dxr_error_text(void);
/* Nanoseconds of CLOCK_MONOTONIC, which all host times are in. */
DXR_C_API uint64_t dxr_now(void);
DXR_C_API dxr_status dxr_retain(const void* handle);
/* Null is fine. The last one ends a follower and stops a runner first: no callback of theirs runs after it, unless it is
 * called by that callback. */
DXR_C_API dxr_status dxr_release(const void* handle);
/* Null is fine. A list of devices releases them. */
DXR_C_API dxr_status dxr_free(const void* memory);
/* Who keeps settings of devices: a name such as "com.example.player". Before anything else. */
DXR_C_API dxr_status dxr_set_application(const char* identifier);
/* Receives lines of the log, on any thread, instead of standard error and the system log; null restores those. A line that
 * is being written meanwhile may still go to the callback before. */
typedef void (*dxr_log_callback)(const char* line, void* user);
DXR_C_API dxr_status dxr_set_log(dxr_log_callback callback, void* user);

/* Why no devices can be found: "cannot connect to the PipeWire server at …"; empty when they can. */
DXR_C_API dxr_status dxr_hardware_error(const char** text);

/* ---- Devices */

/* Everything about a device at one moment; in memory of its own. */
typedef struct dxr_device_info {
    size_t size;
    const char* uid;
    const char* reference; /* what to store in settings: names the device wherever it is plugged in */
    const char* name;
    const char* display_name; /* differs from those of like devices */
    const char* manufacturer;
    const char* model;
    const char* transport; /* a four-character code, "usb ", "bltn", "virt"; "grup" for an aggregate */
    const char* source;    /* "Headphones"; empty when there is none */
    dxr_direction direction;
    int is_connected;
    int is_default;
    int has_volume;
    int has_mute;
    int is_muted;
    uint32_t channels;
    uint32_t stereo_channels[2]; /* from 1 */
    double sample_rate;          /* Hz */
    double volume;               /* 0 to 1 */
    const double* sample_rates;  /* that it can take, ascending */
    size_t sample_rate_count;
    const char* const* sources;
    size_t source_count;
} dxr_device_info;

/* The connected devices, by name. */
DXR_C_API dxr_status dxr_devices(dxr_device* const** devices, size_t* count);
DXR_C_API dxr_status dxr_default_device(dxr_direction direction, dxr_device** device);
/* Hidden and absent devices are found, too. */
DXR_C_API dxr_status dxr_device_with_uid(const char* uid, dxr_direction direction, dxr_device** device);
/* By dxr_device_info.reference: the device itself, or one of its model in another place. */
DXR_C_API dxr_status dxr_device_with_reference(const char* reference, dxr_device** device);
/* By the bytes of dxr_device_archive(), also when this computer has never seen the device. */
DXR_C_API dxr_status dxr_device_from_archive(const void* archive, size_t size, dxr_device** device);
DXR_C_API dxr_status dxr_device_archive(dxr_device* device, const void** archive, size_t* size);
/* The other direction of the same device. */
DXR_C_API dxr_status dxr_device_counterpart(dxr_device* device, dxr_device** counterpart);
DXR_C_API dxr_status dxr_device_get_info(dxr_device* device, const dxr_device_info** info);
DXR_C_API dxr_status dxr_device_set_volume(dxr_device* device, double volume);
DXR_C_API dxr_status dxr_device_set_muted(dxr_device* device, int is_muted);
DXR_C_API dxr_status dxr_device_set_source(dxr_device* device, const char* source);
DXR_C_API dxr_status dxr_device_set_sample_rate(dxr_device* device, double sample_rate);
DXR_C_API dxr_status dxr_device_make_default(dxr_device* device);

/* Settings of a device, which all applications of the user share, as JSON. "null" when there is none. */
DXR_C_API dxr_status dxr_device_get_setting(dxr_device* device, const char* key, const char** json);
/* "null" removes it. Waits for the disk. */
DXR_C_API dxr_status dxr_device_set_setting(dxr_device* device, const char* key, const char* json);
/* The keys that are set, as a JSON array. */
DXR_C_API dxr_status dxr_device_setting_keys(dxr_device* device, const char** json);

/* ---- Following */

/* `device` is the callee's for the call; retain it to keep it. A new default device is an update of both. */
typedef void (*dxr_device_callback)(dxr_device* device, dxr_change change, void* user);
/* Reports every change from now on. List the devices after this call, and none is missed. */
DXR_C_API dxr_status dxr_follow(dxr_device_callback callback, void* user, dxr_follower** follower);

/* ---- Audio */

/* One device's part of one cycle. */
typedef struct dxr_cycle {
    size_t size;
    uint64_t sample_time; /* frames since the runner's start, of the first frame */
    uint64_t host_time;   /* when the first frame was at the device or will be; 0 when that is not known */
    float* samples;       /* interleaved: what was recorded, or silence to be overwritten with what to play */
    uint32_t frames;
    uint32_t channels;
    double sample_rate; /* Hz */
} dxr_cycle;
/* 0 to go on; anything else stops the runner. In real time: see the top. What is played is one cycle later. */
typedef int (*dxr_io)(const dxr_cycle* cycle, void* user);

/* What a runner does with a device: one of `device` and `default_of`, one of `io` and `sound`. */
typedef struct dxr_node {
    size_t size;
    dxr_device* device;
    dxr_direction default_of; /* the default device, followed when it changes */
    const uint32_t* channels; /* numbers from 1; without any the device's stereo pair */
    size_t channel_count;
    dxr_io io;
    void* user;
    dxr_sound* sound; /* of as many channels */
} dxr_node;

typedef struct dxr_runner_state {
    size_t size;
    int is_running;
    uint32_t frames;      /* of a cycle */
    double sample_rate;   /* Hz */
    uint64_t sample_time; /* frames since the start; like all below 0 once stopped */
    uint64_t cycles;
    uint64_t late_cycles; /* that ended after the next was due */
    uint64_t lost_frames; /* of all devices */
    uint64_t restarts;    /* because a device came, went or changed */
    char error[256];      /* why there is no audio although it runs; empty when there is */
} dxr_runner_state;

/* How long one direction of a device keeps samples between a block and the air, by what holds them: frames of the device. Those
 * of an input and of an output add up to the pair's round trip. */
typedef struct dxr_latency {
    size_t size;
    double seconds; /* of all below */
    double frames;
    double sample_rate;      /* of the device, Hz */
    double device_frames;    /* its own */
    double safety_frames;    /* what the hardware keeps between itself and the cycle */
    double cycle_frames;     /* the hardware's buffer */
    double block_frames;     /* output only: what is made is played one block later */
    double converter_frames; /* where frame counts or rates differ */
    double ring_frames;      /* between clocks */
} dxr_latency;

/* `frames` at `sample_rate`, of `channels`, all silent. One that repeats starts again at its end: a loop to play, the last
 * seconds to record, or, recorded into and played by one runner, a way through. */
DXR_C_API dxr_status dxr_sound_new(uint64_t frames, uint32_t channels, double sample_rate, int repeats,
                                   dxr_sound** sound);
/* Its samples, interleaved, while the handle is held. Those behind dxr_sound_position() are the runner's while it runs. */
DXR_C_API dxr_status dxr_sound_samples(dxr_sound* sound, float** samples);
/* Frames that have been played, or recorded, so far; also when it repeats. */
DXR_C_API dxr_status dxr_sound_position(dxr_sound* sound, uint64_t* frames);

DXR_C_API dxr_status dxr_runner_new(dxr_runner** runner);
/* Frames of a cycle and Hz of all blocks; devices may run at others. 0: as the devices run. Not while it runs. */
DXR_C_API dxr_status dxr_runner_set_format(dxr_runner* runner, uint32_t frames, double sample_rate);
/* How rates are converted where a device runs at another. Not while it runs. */
DXR_C_API dxr_status dxr_runner_set_quality(dxr_runner* runner, dxr_quality quality);
/* While it runs, too; it then pauses for a moment, and sample times go on. */
DXR_C_API dxr_status dxr_runner_add(dxr_runner* runner, const dxr_node* node);
/* The callback does not run after it. */
DXR_C_API dxr_status dxr_runner_remove(dxr_runner* runner, dxr_device* device);
DXR_C_API dxr_status dxr_runner_remove_default(dxr_runner* runner, dxr_direction direction);
/* Devices may be absent, refuse or go away: callbacks are called all the same, by a timer where there is no device. */
DXR_C_API dxr_status dxr_runner_start(dxr_runner* runner);
/* No audio callback runs after it. */
DXR_C_API dxr_status dxr_runner_stop(dxr_runner* runner);
DXR_C_API dxr_status dxr_runner_get_state(dxr_runner* runner, dxr_runner_state* state);
/* Those that run now. */
DXR_C_API dxr_status dxr_runner_active_devices(dxr_runner* runner, dxr_device* const** devices,
                                               size_t* count);
/* As of the last cycle; DXR_ERROR_STATE for a device that does not run, or before a first cycle. */
DXR_C_API dxr_status dxr_runner_get_latency(dxr_runner* runner, dxr_device* device, dxr_latency* latency);
/* Calls back when its state or its active devices have changed; one at a time, null for none. */
typedef void (*dxr_runner_callback)(void* user);
DXR_C_API dxr_status dxr_runner_follow(dxr_runner* runner, dxr_runner_callback callback, void* user);

/* ---- Simulated hardware, to test without any */

typedef struct dxr_simulated_device {
    size_t size;
    const char* uid;
    const char* name;
    const char* transport; /* four characters; "virt" */
    uint32_t inputs;       /* channels */
    uint32_t outputs;
    uint32_t frames; /* of a cycle; 512 */
    int is_hidden;
    double sample_rate;         /* 48000 */
    const double* sample_rates; /* 44100 to 192000 */
    size_t sample_rate_count;
    int has_volume; /* and mute */
    double volume;
    const char* const* sources;
    size_t source_count;
    double drift;          /* parts per million that its clock is fast */
    uint32_t latency;      /* frames, of each direction */
    uint32_t clock_domain; /* devices of one run together; 0: its own */
    int loops_back;        /* its inputs hear what its outputs play, one cycle later */
    double tone;           /* Hz, of a sine at 0.5 that its inputs hear; silence */
} dxr_simulated_device;

/* Makes a computer without devices and uses it instead of the real hardware, for good. Before anything else. */
DXR_C_API dxr_status dxr_simulated_new(dxr_clock clock, dxr_computer** computer);
DXR_C_API dxr_status dxr_simulated_plug(dxr_computer* computer, const dxr_simulated_device* device);
/* Its callbacks are over on return. */
DXR_C_API dxr_status dxr_simulated_unplug(dxr_computer* computer, const char* uid);
/* Gives the device of that UID this description. */
DXR_C_API dxr_status dxr_simulated_change(dxr_computer* computer, const dxr_simulated_device* device);
DXR_C_API dxr_status dxr_simulated_set_default(dxr_computer* computer, dxr_direction direction,
                                               const char* uid);
/* Starts of devices, or writes of their values, fail from now on; 0 ends it. */
DXR_C_API dxr_status dxr_simulated_fail(dxr_computer* computer, int starts, int writes);
/* The running device loses cycles at its next one. */
DXR_C_API dxr_status dxr_simulated_lose_cycles(dxr_computer* computer, const char* uid, uint32_t count);
/* Moves a stepped clock, and runs the cycles that fall due on this thread. */
DXR_C_API dxr_status dxr_simulated_advance(dxr_computer* computer, uint64_t nanoseconds);
/* Waits until all changes so far are known to the library and to every dxr_device_callback. */
DXR_C_API dxr_status dxr_simulated_settle(dxr_computer* computer);

#ifdef __cplusplus
}
#endif
#endif
