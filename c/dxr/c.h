/* dxr in C99: audio devices, and audio on one or several of them at once. The library's stable interface.
 *
 * Handles   are reference-counted and checked. A handle is a number, not an address, and is never reused: a
 *           handle that was released or is of another kind is refused. A device has one handle as long as
 *           any reference to it is held, so equal handles mean the same device. dxr_retain() and
 *           dxr_release() accept every kind.
 * Memory    returned through a `const … **` parameter must be released with dxr_free().
 * Structs   begin with their size, which the caller sets to sizeof: fields are only ever added at the end. A
 *           field that is zero has its default. DXR_INIT sets both: `dxr_node node = DXR_INIT(dxr_node);`
 * Text      is UTF-8.
 * Errors    are statuses. dxr_error_text() returns a sentence on the last error on the calling thread.
 *           Functions return for any argument: they do not abort, and no C++ exception leaves them.
 * Threads   of any kind may call, even those that the library did not create. Functions wait for locks and
 *           for the hardware: for the start of a device five seconds at most, otherwise two.
 * Callbacks for changes are called one at a time on the library's thread "dxr.events", where every function
 *           may be called. Callbacks for audio (dxr_io) are called in real time: on the IO thread of a
 *           device, a few milliseconds before their samples are due. They must not lock, allocate, access
 *           files or wait, and may call only dxr_now(), dxr_version() and dxr_error_text(); other functions
 *           return DXR_ERROR_THREAD. (As an exception, for garbage-collected languages, dxr_release() works
 *           there: it waits for a lock, but not for calls in progress on other threads.) Callbacks must not throw.
 * dlclose() does not unload the library: its threads run until the process ends.
 * fork()    makes dxr unusable in the child of a process that has used it: functions return DXR_ERROR_FORKED
 *           there. exec() is allowed.
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
    DXR_ERROR_ARGUMENT = 1, /* null, out of range, or contradictory */
    DXR_ERROR_HANDLE = 2,   /* released, of another kind, or never valid */
    DXR_ERROR_TEXT = 3,     /* not UTF-8, or not in the required format */
    DXR_ERROR_NOT_FOUND = 4,
    DXR_ERROR_STATE = 5,    /* not possible now: running, already added, not connected */
    DXR_ERROR_REFUSED = 6,  /* refused by the hardware */
    DXR_ERROR_MEMORY = 7,   /* out of memory or threads */
    DXR_ERROR_THREAD = 8,   /* not allowed in an audio or log callback */
    DXR_ERROR_FORKED = 9,   /* not allowed in the child of fork() */
    DXR_ERROR_INTERNAL = 10 /* an error in the library */
};
typedef int dxr_status; /* DXR_OK or an error; an int, so that its size is the same for every compiler */

enum { DXR_INPUT = 1, DXR_OUTPUT = 2 };
typedef int dxr_direction;
enum { DXR_CONNECTED = 1, DXR_DISCONNECTED = 2, DXR_UPDATED = 3 };
typedef int dxr_change;
enum {
    DXR_QUALITY_STANDARD = 0, /* lowest latency and cost; error -31 dB at 10 kHz from 44.1 to 48 kHz */
    DXR_QUALITY_HIGH = 1      /* error below -110 dB; latency 32 frames */
};
typedef int dxr_quality;
enum {
    DXR_CLOCK_REAL_TIME = 1, /* follows the host's clock */
    DXR_CLOCK_STEPPED = 2    /* advances only in dxr_simulated_advance(), on the calling thread */
};
typedef int dxr_clock;

typedef struct dxr_device dxr_device;     /* one direction of an audio device, even while it is absent */
typedef struct dxr_follower dxr_follower; /* a registered dxr_device_callback */
typedef struct dxr_sound dxr_sound;       /* frames in memory, to play or to record into */
typedef struct dxr_runner dxr_runner;     /* runs audio on devices */
typedef struct dxr_computer dxr_computer; /* simulated hardware */

/* ---- The library */

/* For example "0.1.0". */
DXR_C_API const char* dxr_version(void);
/* The error text of the last call on this thread that did not return DXR_OK. Valid until the next such
 * call. */
DXR_C_API const char* dxr_error_text(void);
/* The present time in nanoseconds of CLOCK_MONOTONIC, the unit of all host times. */
DXR_C_API uint64_t dxr_now(void);
DXR_C_API dxr_status dxr_retain(const void* handle);
/* `handle` may be null. Releasing the last reference first ends a follower or stops a runner: its callbacks
 * do not run after this returns; if one of them made the call, that call is the last. */
DXR_C_API dxr_status dxr_release(const void* handle);
/* `memory` may be null. Freeing a list of devices also releases its handles. */
DXR_C_API dxr_status dxr_free(const void* memory);
/* Sets the application's identifier, such as "com.example.player", which is stored with the device settings
 * that the application makes. Call it first. */
DXR_C_API dxr_status dxr_set_application(const char* identifier);
/* Receives log lines, on any thread, instead of standard error and the system log; null restores these. A
 * line being written during the call may still reach the previous callback. The callback may be called with
 * locks held: like a callback for audio, it may call only dxr_now(), dxr_version() and dxr_error_text(). */
typedef void (*dxr_log_callback)(const char* line, void* user);
DXR_C_API dxr_status dxr_set_log(dxr_log_callback callback, void* user);

/* The reason why no devices can be found: "cannot connect to the PipeWire server at …"; empty if they can
 * be. */
DXR_C_API dxr_status dxr_hardware_error(const char** text);

/* ---- Devices */

/* The values of a device, each as it is when it is read: a change meanwhile may show in some of them only.
 * The memory includes everything that the fields point to. */
typedef struct dxr_device_info {
    size_t size;
    const char* uid;
    const char* reference; /* to store in settings: identifies the device in any port */
    const char* name;
    const char* display_name; /* different for devices with the same name */
    const char* manufacturer;
    const char* model;
    const char* transport; /* a four-character code: "usb ", "bltn", "virt"; "grup" for an aggregate */
    const char* source;    /* for example "Headphones"; empty if there is none */
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
    const double* sample_rates;  /* the supported rates, ascending */
    size_t sample_rate_count;
    const char* const* sources;
    size_t source_count;
} dxr_device_info;

/* The connected devices, sorted by name. */
DXR_C_API dxr_status dxr_devices(dxr_device* const** devices, size_t* count);
DXR_C_API dxr_status dxr_default_device(dxr_direction direction, dxr_device** device);
/* Also finds hidden and absent devices. */
DXR_C_API dxr_status dxr_device_with_uid(const char* uid, dxr_direction direction, dxr_device** device);
/* Looks up a dxr_device_info.reference: the device itself, or one of the same model in another place. */
DXR_C_API dxr_status dxr_device_with_reference(const char* reference, dxr_device** device);
/* Looks up the result of dxr_device_archive(), even if this computer has never had the device. */
DXR_C_API dxr_status dxr_device_from_archive(const void* archive, size_t size, dxr_device** device);
DXR_C_API dxr_status dxr_device_archive(dxr_device* device, const void** archive, size_t* size);
/* The other direction of the same physical device. */
DXR_C_API dxr_status dxr_device_counterpart(dxr_device* device, dxr_device** counterpart);
DXR_C_API dxr_status dxr_device_get_info(dxr_device* device, const dxr_device_info** info);
DXR_C_API dxr_status dxr_device_set_volume(dxr_device* device, double volume);
DXR_C_API dxr_status dxr_device_set_muted(dxr_device* device, int is_muted);
DXR_C_API dxr_status dxr_device_set_source(dxr_device* device, const char* source);
DXR_C_API dxr_status dxr_device_set_sample_rate(dxr_device* device, double sample_rate);
DXR_C_API dxr_status dxr_device_make_default(dxr_device* device);

/* A setting of a device, shared by all applications of the user, as JSON; "null" if unset. */
DXR_C_API dxr_status dxr_device_get_setting(dxr_device* device, const char* key, const char** json);
/* "null" removes the setting. Waits for the disk. Returns DXR_ERROR_ARGUMENT for a value of over half a
 * megabyte, or if the device's settings would exceed one. */
DXR_C_API dxr_status dxr_device_set_setting(dxr_device* device, const char* key, const char* json);
/* The keys that have values, as a JSON array. */
DXR_C_API dxr_status dxr_device_setting_keys(dxr_device* device, const char** json);

/* ---- Notifications */

/* `device` is valid during the call; retain it to keep it. A change of the default is an update of both
 * devices. */
typedef void (*dxr_device_callback)(dxr_device* device, dxr_change change, void* user);
/* Reports every change from now on. To miss none, list the devices after this call. */
DXR_C_API dxr_status dxr_follow(dxr_device_callback callback, void* user, dxr_follower** follower);

/* ---- Audio */

/* One device's part of a cycle. */
typedef struct dxr_cycle {
    size_t size;
    uint64_t sample_time; /* of the first frame, in frames since the runner's start */
    uint64_t host_time;   /* when the first frame is at the device; 0 if unknown */
    float* samples;       /* interleaved; recorded samples, or silence to overwrite with output */
    uint32_t frames;
    uint32_t channels;
    double sample_rate; /* Hz */
} dxr_cycle;
/* Returns 0 to continue; any other value stops the runner. Called in real time: see the top. Output is played
 * one cycle later. */
typedef int (*dxr_io)(const dxr_cycle* cycle, void* user);

/* The use of a device in a runner. Set either `device` or `default_of`, and either `io` or `sound`. */
typedef struct dxr_node {
    size_t size;
    dxr_device* device;
    dxr_direction default_of; /* the default device of this direction; changes when the default does */
    const uint32_t* channels; /* numbers from 1; by default the device's stereo pair */
    size_t channel_count;
    dxr_io io;
    void* user;
    dxr_sound* sound; /* with as many channels */
} dxr_node;

typedef struct dxr_runner_state {
    size_t size;
    int is_running;
    uint32_t frames;      /* frames of a cycle */
    double sample_rate;   /* Hz */
    uint64_t sample_time; /* frames since the start; like all fields below, 0 once stopped */
    uint64_t cycles;
    uint64_t late_cycles; /* cycles that ended after the next was due */
    uint64_t lost_frames; /* frames lost by all devices since the last restart */
    uint64_t restarts; /* for a device that was added, removed, plugged, unplugged or changed, or to retry */
    char error[256];   /* why a running runner has no audio; empty if it has */
} dxr_runner_state;

/* How long samples take between a block and the air in one direction of a device, itemised by cause, in
 * frames of the device. The values of an input and of an output add up to the pair's round trip. */
typedef struct dxr_latency {
    size_t size;
    double seconds;          /* `frames` at `sample_rate` */
    double frames;           /* all items below together */
    double sample_rate;      /* of the device, Hz */
    double device_frames;    /* of the device itself */
    double safety_frames;    /* between the hardware's position and the cycle */
    double cycle_frames;     /* the hardware's buffer */
    double block_frames;     /* output only: a block is played one block later */
    double converter_frames; /* if frame counts or rates differ */
    double ring_frames;      /* if clocks differ */
} dxr_latency;

/* `frames` frames at `sample_rate`, which should be the runner's, with `channels` channels, initially silent.
 * If it repeats, frame n of the runner is frame n modulo `frames` of the sound: to play a loop, to record the
 * latest seconds, or, recorded into and played by one runner, to pass an input through to an output. */
DXR_C_API dxr_status dxr_sound_new(uint64_t frames, uint32_t channels, double sample_rate, int repeats,
                                   dxr_sound** sound);
/* The interleaved samples, valid while the handle is held. A running runner may access the frames from
 * dxr_sound_position() on; all, if the sound repeats. */
DXR_C_API dxr_status dxr_sound_samples(dxr_sound* sound, float** samples);
/* Frames played or recorded so far, by all nodes of the sound; keeps counting when it repeats. */
DXR_C_API dxr_status dxr_sound_position(dxr_sound* sound, uint64_t* frames);

DXR_C_API dxr_status dxr_runner_new(dxr_runner** runner);
/* Frames per cycle and rate in Hz of all blocks; devices may run at others. 0 takes the devices' values. Not
 * while the runner runs. */
DXR_C_API dxr_status dxr_runner_set_format(dxr_runner* runner, uint32_t frames, double sample_rate);
/* The quality of rate conversion for devices that run at another rate. Not while the runner runs. */
DXR_C_API dxr_status dxr_runner_set_quality(dxr_runner* runner, dxr_quality quality);
/* May be called while the runner runs; it then pauses briefly, and sample times continue. */
DXR_C_API dxr_status dxr_runner_add(dxr_runner* runner, const dxr_node* node);
/* The device's callback does not run after this returns. Returns DXR_ERROR_NOT_FOUND for a device that the
 * runner does not have, or only as the default. */
DXR_C_API dxr_status dxr_runner_remove(dxr_runner* runner, dxr_device* device);
DXR_C_API dxr_status dxr_runner_remove_default(dxr_runner* runner, dxr_direction direction);
/* Devices may be absent or disappear: callbacks are still called, by a timer if there is no device. While
 * devices refuse to start, callbacks pause, the start is tried again, and `error` of the state says why. */
DXR_C_API dxr_status dxr_runner_start(dxr_runner* runner);
/* No audio callback runs after this returns. */
DXR_C_API dxr_status dxr_runner_stop(dxr_runner* runner);
DXR_C_API dxr_status dxr_runner_get_state(dxr_runner* runner, dxr_runner_state* state);
/* The devices that run now. */
DXR_C_API dxr_status dxr_runner_active_devices(dxr_runner* runner, dxr_device* const** devices,
                                               size_t* count);
/* As of the last cycle. Returns DXR_ERROR_STATE if the device does not run, or before the first cycle. */
DXR_C_API dxr_status dxr_runner_get_latency(dxr_runner* runner, dxr_device* device, dxr_latency* latency);
/* Called when the runner has started, stopped or failed, or its devices have changed, never concurrently.
 * Null removes the callback. */
typedef void (*dxr_runner_callback)(void* user);
DXR_C_API dxr_status dxr_runner_follow(dxr_runner* runner, dxr_runner_callback callback, void* user);

/* ---- Simulated hardware, for tests without audio hardware */

typedef struct dxr_simulated_device {
    size_t size;
    const char* uid;
    const char* name;
    const char* transport; /* four characters; default "virt" */
    uint32_t inputs;       /* channels */
    uint32_t outputs;
    uint32_t frames; /* frames of a cycle; default 512 */
    int is_hidden;
    double sample_rate;         /* default 48000 */
    const double* sample_rates; /* default 44100 to 192000 */
    size_t sample_rate_count;
    int has_volume; /* and a mute control */
    double volume;
    const char* const* sources;
    size_t source_count;
    double drift;          /* how much its clock is fast, in parts per million */
    uint32_t latency;      /* frames, in each direction */
    uint32_t clock_domain; /* devices with the same domain share a clock; 0: a clock of its own */
    int loops_back;        /* its inputs receive its output, one cycle later */
    double tone;           /* frequency in Hz of a sine of amplitude 0.5 at its inputs; default silence */
} dxr_simulated_device;

/* Creates a computer without devices and uses it instead of the real hardware, permanently. Must be called
 * before any function that uses devices. */
DXR_C_API dxr_status dxr_simulated_new(dxr_clock clock, dxr_computer** computer);
DXR_C_API dxr_status dxr_simulated_plug(dxr_computer* computer, const dxr_simulated_device* device);
/* The device's callbacks have ended when this returns. */
DXR_C_API dxr_status dxr_simulated_unplug(dxr_computer* computer, const char* uid);
/* Replaces the description of the device with that UID. */
DXR_C_API dxr_status dxr_simulated_change(dxr_computer* computer, const dxr_simulated_device* device);
DXR_C_API dxr_status dxr_simulated_set_default(dxr_computer* computer, dxr_direction direction,
                                               const char* uid);
/* Makes starts of devices, or writes of their values, fail from now on; 0 ends this. */
DXR_C_API dxr_status dxr_simulated_fail(dxr_computer* computer, int starts, int writes);
/* Makes the running device lose `count` cycles at its next cycle. */
DXR_C_API dxr_status dxr_simulated_lose_cycles(dxr_computer* computer, const char* uid, uint32_t count);
/* Advances a stepped clock, and runs the cycles that become due on the calling thread. Returns
   DXR_ERROR_ARGUMENT if the clock would pass 292 years. */
DXR_C_API dxr_status dxr_simulated_advance(dxr_computer* computer, uint64_t nanoseconds);
/* Waits until all changes so far have reached the library and every dxr_device_callback. */
DXR_C_API dxr_status dxr_simulated_settle(dxr_computer* computer);

#ifdef __cplusplus
}
#endif
#endif
