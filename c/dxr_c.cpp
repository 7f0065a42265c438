#include "dxr/c.h"

#include "CXJSON.h"
#include "CXMainBundle.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DXRVersion.h"
#include "Events.h"
#include "Follower.h"
#include "Handles.h"
#include "HostClock.h"
#include "LogSink.h"
#include "Packer.h"
#include "QDL.h"
#include "Runner.h"
#include "Sound.h"
#include "Utf8.h"
#include "simulated.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <tuple>
#include <unordered_map>

// The C interface: checks the arguments, calls the classes, and turns exceptions into statuses.

using namespace dxr_c;

namespace {

thread_local char errorText[512] = "";
std::atomic<bool> isUsed{false};       // threads have been started, which fork() does not copy
std::atomic<bool> isForkedCopy{false}; // set in the child of fork(), which then has one thread

dxr_status noteError(dxr_status status, const char* function, const char* text) noexcept
{
    std::snprintf(errorText, sizeof errorText, "%s: %s", function, text);
    const std::string_view whole = dxr::utf8Prefix(errorText, sizeof errorText - 4);
    errorText[whole.size()] = 0;
    return status;
}

void prepareForFork()
{
    static const bool isPrepared [[maybe_unused]] = [] {
        return pthread_atfork(nullptr, nullptr, [] { isForkedCopy = isUsed.load(); }) == 0;
    }();
    isUsed = true;
}

/// Runs the body of a function of the interface; catches everything it throws.
template <class Body> dxr_status guarded(const char* function, const Body& body) noexcept
{
    if (isForkedCopy)
        return noteError(DXR_ERROR_FORKED, function, "the process is a fork() of one that used dxr");
    if (isInAudioCallback())
        return noteError(DXR_ERROR_THREAD, function, "not to be called in an audio callback");
    try {
        prepareForFork();
        body();
        return DXR_OK;
    } catch (const Failure& failure) {
        return noteError(failure.status, function, failure.text.c_str());
    } catch (const std::bad_alloc&) {
        return noteError(DXR_ERROR_MEMORY, function, "not enough memory");
    } catch (const std::system_error& error) {
        return noteError(DXR_ERROR_MEMORY, function, error.what());
    } catch (const std::exception& error) {
        return noteError(DXR_ERROR_INTERNAL, function, error.what());
    } catch (...) {
        return noteError(DXR_ERROR_INTERNAL, function, "unknown exception");
    }
}

// ---- Handles

CXRef<DXRDevice> deviceOf(const dxr_device* handle)
{
    return Handles::shared().object<DXRDevice>(handle, Kind::Device);
}
CXRef<Runner> runnerOf(const dxr_runner* handle)
{
    return Handles::shared().object<Runner>(handle, Kind::Runner);
}
CXRef<Sound> soundOf(const dxr_sound* handle)
{
    return Handles::shared().object<Sound>(handle, Kind::Sound);
}
CXRef<SimulatedHardware> computerOf(const dxr_computer* handle)
{
    return Handles::shared().object<SimulatedHardware>(handle, Kind::Computer);
}

/// Releases the last reference to an object of a handle. In an audio callback the object is destroyed on
/// another thread: a runner would wait for the callback, and memory is freed.
void letGo(CXRef<CXObject> object, bool inCycle)
{
    if (object && inCycle)
        events().async([kept = std::move(object)] {});
}

// ---- Arguments

template <class Pointer> void require(Pointer pointer, const char* name)
{
    if (!pointer)
        fail(DXR_ERROR_ARGUMENT, std::string(name) + " is null");
}

std::string textOf(const char* text, const char* name)
{
    require(text, name);
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t length = dxr::utf8CharacterLength(rest);
        if (length == 0)
            fail(DXR_ERROR_TEXT, std::string(name) + " is not UTF-8");
        rest.remove_prefix(length);
    }
    return text;
}

HALDirection directionOf(dxr_direction direction)
{
    if (direction != DXR_INPUT && direction != DXR_OUTPUT)
        fail(DXR_ERROR_ARGUMENT, "the direction is neither DXR_INPUT nor DXR_OUTPUT");
    return direction == DXR_INPUT ? HALDirection::Input : HALDirection::Output;
}
bool isInput(dxr_direction direction)
{
    return directionOf(direction) == HALDirection::Input;
}

/// Reads a struct that the caller has filled in, up to the size given. No struct has grown yet, so the
/// present size is that of the first version.
template <class Struct> Struct readStruct(const Struct* given, const char* name)
{
    require(given, name);
    if (given->size < sizeof(Struct))
        fail(DXR_ERROR_ARGUMENT, std::string(name) + "->size is not the size of the struct");
    const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
    if (given->size > sizeof(Struct) + 4096 || std::any_of(bytes + sizeof(Struct), bytes + given->size,
                                                           [](unsigned char byte) { return byte != 0; }))
        fail(DXR_ERROR_ARGUMENT, std::string(name) + " has fields that this version does not know");
    return *given;
}

double requireFraction(double value, const char* name)
{
    if (!(value >= 0.0 && value <= 1.0))
        fail(DXR_ERROR_ARGUMENT, std::string(name) + " is not from 0 to 1");
    return value;
}

void requireSampleRate(double rate)
{
    if (!QDLAudioDeviceSampleRateIsValid(rate))
        fail(DXR_ERROR_ARGUMENT, "the sample rate is not from 1000 to 1000000 Hz");
}

// ---- Results

dxr_device* give(const CXRef<DXRDevice>& device, const char* otherwise)
{
    if (!device)
        fail(DXR_ERROR_NOT_FOUND, otherwise);
    return Handles::shared().give<dxr_device>(Kind::Device, device);
}

void giveList(const std::set<CXRef<DXRDevice>>& set, dxr_device* const** devices, size_t* count)
{
    std::vector<std::tuple<std::string, bool, std::string, CXRef<DXRDevice>>> sorted;
    for (const CXRef<DXRDevice>& device : set)
        sorted.emplace_back(device->displayName(), device->isInput(), device->deviceUID(), device);
    std::ranges::sort(sorted, {}, [](const auto& each) {
        return std::tie(std::get<0>(each), std::get<1>(each), std::get<2>(each));
    });
    auto* const list = newMemory<dxr_device*>(sorted.size() * sizeof(dxr_device*), sorted.size());
    for (size_t i = 0; i < sorted.size(); ++i)
        list[i] = give(std::get<3>(sorted[i]), "");
    *devices = list;
    *count = sorted.size();
}

/// The values of a device at one time.
struct DeviceValues {
    explicit DeviceValues(const DXRDevice& device)
    {
        const CXRef<DXRDeviceReference> named = device.reference();
        texts = {device.deviceUID(),     named ? named->string() : "",
                 device.name(),          device.displayName(),
                 device.manufacturer(),  device.model(),
                 device.transportType(), device.source()};
        sampleRates = device.availableSampleRates();
        sources = device.availableSources();
        info.direction = device.isInput() ? DXR_INPUT : DXR_OUTPUT;
        info.is_connected = device.isConnected();
        info.is_default = device.isDefault();
        info.has_volume = device.hasVolume();
        info.has_mute = device.hasMute();
        info.is_muted = device.isMuted();
        info.channels = device.channelCount();
        const std::vector<uint32_t> stereo = device.preferredStereoChannels();
        std::copy_n(stereo.begin(), std::min<size_t>(stereo.size(), 2), info.stereo_channels);
        info.sample_rate = device.sampleRate();
        info.volume = device.volume();
    }
    dxr_device_info packedBy(Packer& packer) const
    {
        dxr_device_info packed = info;
        packed.size = sizeof packed;
        const char** const places[] = {&packed.uid,          &packed.reference,    &packed.name,
                                       &packed.display_name, &packed.manufacturer, &packed.model,
                                       &packed.transport,    &packed.source};
        for (size_t i = 0; i < std::size(places); ++i)
            *places[i] = packer.text(texts[i]);
        packed.sample_rates = packer.numbers(sampleRates);
        packed.sample_rate_count = sampleRates.size();
        packed.sources = packer.texts(sources);
        packed.source_count = sources.size();
        return packed;
    }

    dxr_device_info info{};
    std::array<std::string, 8> texts;
    std::vector<double> sampleRates;
    std::vector<std::string> sources;
};

/// Writes a value of a device; fails if the device is not connected.
void write(const dxr_device* handle, const char* what, const CXBlock<bool(DXRDevice&)>& write)
{
    const CXRef<DXRDevice> device = deviceOf(handle);
    if (!device->isConnected())
        fail(DXR_ERROR_STATE, "the device is not connected");
    if (!write(*device))
        fail(DXR_ERROR_REFUSED, std::string("the device does not take this ") + what);
}

/// The channels that a node requests; empty means the stereo pair.
std::optional<DXRDeviceRunner::Channels> channelsOf(const dxr_node& node)
{
    constexpr uint32_t maxChannel = 4096;
    if (node.channel_count == 0)
        return std::nullopt;
    require(node.channels, "node->channels");
    if (node.channel_count > maxChannel ||
        std::any_of(node.channels, node.channels + node.channel_count,
                    [](uint32_t channel) { return channel == 0 || channel > maxChannel; }))
        fail(DXR_ERROR_ARGUMENT, "node->channels has numbers, or is of a length, not from 1 to 4096");
    return DXRDeviceRunner::Channels(node.channels, node.channels + node.channel_count);
}

/// The IO block of a node.
DXRIOBlock blockOf(const dxr_node& node, Runner& runner, bool input, size_t channelCount)
{
    if ((node.io != nullptr) == (node.sound != nullptr))
        fail(DXR_ERROR_ARGUMENT, "one of node->io and node->sound is wanted");
    if (node.io)
        return runner.blockFor(node.io, node.user, input);
    const CXRef<Sound> sound = soundOf(node.sound);
    if (sound->buffer->channelCount() != channelCount)
        fail(DXR_ERROR_ARGUMENT, "the sound has " + std::to_string(sound->buffer->channelCount()) +
                                     " channels, the node " + std::to_string(channelCount));
    return
        [sound, input](uint64_t sampleTime, DXRBuffer& cycle) { sound->perform(sampleTime, cycle, input); };
}

void addNode(Runner& runner, const dxr_node& node)
{
    if ((node.device != nullptr) == (node.default_of != 0))
        fail(DXR_ERROR_ARGUMENT, "one of node->device and node->default_of is wanted");
    const CXRef<DXRDevice> device = node.device ? deviceOf(node.device) : nullptr;
    const bool input = device ? device->isInput() : isInput(node.default_of);
    const std::optional<DXRDeviceRunner::Channels> channels = channelsOf(node);
    const DXRIOBlock block = blockOf(node, runner, input, channels ? channels->size() : 2);
    using Direction = DXRDeviceRunner::Direction;
    const bool isAdded =
        device
            ? runner.runner->addDevice(device, channels, block)
            : runner.runner->addDefaultDevice(input ? Direction::Input : Direction::Output, channels, block);
    if (!isAdded)
        fail(DXR_ERROR_STATE,
             "the runner has this device, or cycles of so many frames and channels are too long");
}

void requireStopped(const Runner& runner)
{
    if (runner.runner->isRunning())
        fail(DXR_ERROR_STATE, "the runner runs");
}

/// The builder of a simulated device with this description.
SimulatedDeviceBuilder builderOf(const dxr_simulated_device& device)
{
    SimulatedDeviceBuilder builder = aDevice();
    builder.uid(textOf(device.uid, "device->uid"))
        .hidden(device.is_hidden != 0)
        .clockDomain(device.clock_domain);
    if (device.name)
        builder.name(textOf(device.name, "device->name"));
    if (device.transport) {
        const std::string code = textOf(device.transport, "device->transport");
        if (code.size() != 4)
            fail(DXR_ERROR_TEXT, "device->transport is not of four characters");
        uint32_t type = 0;
        for (const char letter : code)
            type = type << 8 | static_cast<unsigned char>(letter);
        builder.transport(type);
    }
    if (std::max(device.inputs, device.outputs) > 1024 || device.frames > DXRDeviceRunner::maxFrames)
        fail(DXR_ERROR_ARGUMENT, "more than 1024 channels, or too many frames");
    if (device.frames > 0)
        builder.bufferFrameSize(device.frames);
    if (device.sample_rate != 0.0) {
        requireSampleRate(device.sample_rate);
        builder.sampleRate(device.sample_rate);
    }
    if (device.sample_rate_count > 0)
        builder.sampleRates({});
    for (size_t i = 0; i < device.sample_rate_count; ++i) {
        require(device.sample_rates, "device->sample_rates");
        requireSampleRate(device.sample_rates[i]);
        builder.sampleRateRange(device.sample_rates[i], device.sample_rates[i]);
    }
    if (!(std::abs(device.drift) <= 10000.0))
        fail(DXR_ERROR_ARGUMENT, "device->drift is more than 10000 parts per million");
    builder.drift(device.drift);
    const auto volume = static_cast<float>(requireFraction(device.volume, "device->volume"));
    const auto describe = [&](HALDirection direction) {
        builder.latency(direction, device.latency);
        if (device.has_volume)
            builder.volume(direction, volume).mute(direction, false);
        for (size_t i = 0; i < device.source_count; ++i) {
            require(device.sources, "device->sources");
            builder.source(direction, static_cast<uint32_t>(i + 1), textOf(device.sources[i], "a source"));
        }
    };
    if (device.inputs > 0) {
        builder.inputs(device.inputs);
        describe(HALDirection::Input);
    }
    if (device.outputs > 0) {
        builder.outputs(device.outputs);
        describe(HALDirection::Output);
    }
    if (!(device.tone >= 0.0 && device.tone <= 1e6))
        fail(DXR_ERROR_ARGUMENT, "device->tone is not a frequency");
    if (device.tone > 0.0)
        builder.hears(simulatedTone(device.tone));
    if (device.loops_back)
        builder.loopsBack();
    return builder;
}

void requirePlugged(bool isPlugged)
{
    if (!isPlugged)
        fail(DXR_ERROR_NOT_FOUND, "no device of that UID is plugged in");
}

} // namespace

extern "C" {

// ---- The library

const char* dxr_version()
{
    return DXRVersionString();
}

const char* dxr_error_text()
{
    return errorText;
}

uint64_t dxr_now()
{
    return dxr::HostClock::nowTicks();
}

dxr_status dxr_retain(const void* handle)
{
    return guarded(__func__, [&] { Handles::shared().retain(handle); });
}

dxr_status dxr_release(const void* handle)
{
    const bool wasInCycle = std::exchange(isInAudioCallback(), false);
    const dxr_status status = guarded(__func__, [&] {
        if (handle)
            letGo(Handles::shared().release(handle), wasInCycle);
    });
    isInAudioCallback() = wasInCycle;
    return status;
}

dxr_status dxr_free(const void* memory)
{
    return guarded(__func__, [&] {
        if (!memory)
            return;
        const std::optional<size_t> deviceCount = Handles::shared().removeMemory(memory);
        if (!deviceCount)
            fail(DXR_ERROR_HANDLE, "the memory was freed, or is not from this library");
        for (size_t i = 0; i < *deviceCount; ++i)
            (void)Handles::shared().release(static_cast<dxr_device* const*>(memory)[i]);
        std::free(const_cast<void*>(memory));
    });
}

dxr_status dxr_set_application(const char* identifier)
{
    return guarded(__func__, [&] { CXSetMainBundleIdentifier(textOf(identifier, "identifier")); });
}

dxr_status dxr_set_log(dxr_log_callback callback, void* user)
{
    return guarded(__func__, [&] {
        if (!callback)
            return dxr::LogSink::setWriter({});
        dxr::LogSink::setWriter(
            [callback, user](std::string_view line) { callback(std::string(line).c_str(), user); });
    });
}

dxr_status dxr_hardware_error(const char** text)
{
    return guarded(__func__, [&] {
        require(text, "text");
        *text = newText(HALHardwareUnavailableReason());
    });
}

// ---- Devices

dxr_status dxr_devices(dxr_device* const** devices, size_t* count)
{
    return guarded(__func__, [&] {
        require(devices, "devices");
        require(count, "count");
        giveList(DXRDeviceManager::sharedDeviceManager().connectedDevices(), devices, count);
    });
}

dxr_status dxr_default_device(dxr_direction direction, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        const bool input = isInput(direction);
        const DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
        *device = give(input ? manager.defaultInputDevice() : manager.defaultOutputDevice(),
                       input ? "there is no default input" : "there is no default output");
    });
}

dxr_status dxr_device_with_uid(const char* uid, dxr_direction direction, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        const std::string text = textOf(uid, "uid");
        *device = give(DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(text, isInput(direction)),
                       "no device has this UID");
    });
}

dxr_status dxr_device_with_reference(const char* reference, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        const std::string text = textOf(reference, "reference");
        if (!isDeviceReference(text))
            fail(DXR_ERROR_TEXT, "the text is not a reference");
        *device = give(DXRDeviceManager::sharedDeviceManager().deviceWithReference(text),
                       "no device has this reference");
    });
}

dxr_status dxr_device_from_archive(const void* archive, size_t size, dxr_device** device)
{
    return guarded(__func__, [&] {
        require(device, "device");
        require(archive, "archive");
        *device = give(DXRDeviceManager::sharedDeviceManager().deviceFromArchive(
                           std::span(static_cast<const std::byte*>(archive), size)),
                       "these bytes are not an archived device");
    });
}

dxr_status dxr_device_archive(dxr_device* device, const void** archive, size_t* size)
{
    return guarded(__func__, [&] {
        require(archive, "archive");
        require(size, "size");
        const auto bytes = DXRDeviceManager::archiveForDevice(deviceOf(device));
        auto* const memory = newMemory<std::byte>(bytes->size());
        std::ranges::copy(*bytes, memory);
        *archive = memory;
        *size = bytes->size();
    });
}

dxr_status dxr_device_counterpart(dxr_device* device, dxr_device** counterpart)
{
    return guarded(__func__, [&] {
        require(counterpart, "counterpart");
        *counterpart = give(DXRDeviceManager::sharedDeviceManager().counterpartForDevice(deviceOf(device)),
                            "the device has one direction");
    });
}

dxr_status dxr_device_get_info(dxr_device* device, const dxr_device_info** info)
{
    return guarded(__func__, [&] {
        require(info, "info");
        const DeviceValues values(*deviceOf(device));
        *info = Packer::pack<dxr_device_info>([&](Packer& packer) { return values.packedBy(packer); });
    });
}

dxr_status dxr_device_set_volume(dxr_device* device, double volume)
{
    return guarded(__func__, [&] {
        requireFraction(volume, "the volume");
        write(device, "volume", [&](DXRDevice& each) { return each.setVolume(volume); });
    });
}

dxr_status dxr_device_set_muted(dxr_device* device, int is_muted)
{
    return guarded(__func__, [&] {
        write(device, "mute", [&](DXRDevice& each) { return each.setMuted(is_muted != 0); });
    });
}

dxr_status dxr_device_set_source(dxr_device* device, const char* source)
{
    return guarded(__func__, [&] {
        const std::string text = textOf(source, "source");
        write(device, "source", [&](DXRDevice& each) { return each.setSource(text); });
    });
}

dxr_status dxr_device_set_sample_rate(dxr_device* device, double sample_rate)
{
    return guarded(__func__, [&] {
        requireSampleRate(sample_rate);
        write(device, "sample rate", [&](DXRDevice& each) { return each.setSampleRate(sample_rate); });
    });
}

dxr_status dxr_device_make_default(dxr_device* device)
{
    return guarded(__func__, [&] {
        write(device, "role", [](DXRDevice& each) {
            const AudioObjectID id = each.deviceID();
            const AudioObjectPropertyAddress address{
                each.isInput() ? kAudioHardwarePropertyDefaultInputDevice
                               : kAudioHardwarePropertyDefaultOutputDevice,
                kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
            return AudioObjectSetPropertyData(kAudioObjectSystemObject, &address, 0, nullptr, sizeof id,
                                              &id) == kAudioHardwareNoError;
        });
    });
}

dxr_status dxr_device_get_setting(dxr_device* device, const char* key, const char** json)
{
    return guarded(__func__, [&] {
        require(json, "json");
        *json = newText(CXJSONWithPlist(deviceOf(device)->overrideForKey(textOf(key, "key"))));
    });
}

dxr_status dxr_device_set_setting(dxr_device* device, const char* key, const char* json)
{
    return guarded(__func__, [&] {
        const std::optional<CXPlist> value = CXPlistWithJSON(textOf(json, "json"));
        if (!value)
            fail(DXR_ERROR_TEXT, "the value is not JSON");
        deviceOf(device)->setOverride(*value, textOf(key, "key"));
    });
}

dxr_status dxr_device_setting_keys(dxr_device* device, const char** json)
{
    return guarded(__func__, [&] {
        require(json, "json");
        *json = newText(CXJSONWithPlist(CXPlist(deviceOf(device)->overrideKeys())));
    });
}

// ---- Following

dxr_status dxr_follow(dxr_device_callback callback, void* user, dxr_follower** follower)
{
    return guarded(__func__, [&] {
        require(callback, "callback");
        require(follower, "follower");
        *follower = Handles::shared().give<dxr_follower>(
            Kind::Follower, CXRef<Follower>::adopt(new Follower(callback, user)));
    });
}

// ---- Audio

dxr_status dxr_sound_new(uint64_t frames, uint32_t channels, double sample_rate, int repeats,
                         dxr_sound** sound)
{
    return guarded(__func__, [&] {
        require(sound, "sound");
        requireSampleRate(sample_rate);
        constexpr uint64_t maxSamples = uint64_t{1} << 31; // 8 GB: more is a mistake and would exhaust memory
        if (frames == 0 || channels == 0 || channels > 4096 || frames > maxSamples / channels)
            fail(DXR_ERROR_ARGUMENT, "no frames, not 1 to 4096 channels, or more than 2^31 samples");
        CXRef<DXRBuffer> buffer =
            DXRBuffer::initWithSampleRate(sample_rate, static_cast<uint32_t>(frames), channels);
        if (!buffer)
            throw std::bad_alloc();
        *sound = Handles::shared().give<dxr_sound>(
            Kind::Sound, CXRef<Sound>::adopt(new Sound(std::move(buffer), repeats != 0)));
    });
}

dxr_status dxr_sound_samples(dxr_sound* sound, float** samples)
{
    return guarded(__func__, [&] {
        require(samples, "samples");
        *samples = soundOf(sound)->buffer->samples();
    });
}

dxr_status dxr_sound_position(dxr_sound* sound, uint64_t* frames)
{
    return guarded(__func__, [&] {
        require(frames, "frames");
        *frames = soundOf(sound)->position.load(std::memory_order_acquire);
    });
}

dxr_status dxr_runner_new(dxr_runner** runner)
{
    return guarded(__func__, [&] {
        require(runner, "runner");
        CXRef<DXRDeviceRunner> made = DXRDeviceRunner::init();
        if (!made)
            fail(DXR_ERROR_MEMORY, "cannot create a thread");
        *runner = Handles::shared().give<dxr_runner>(Kind::Runner,
                                                     CXRef<Runner>::adopt(new Runner(std::move(made))));
    });
}

dxr_status dxr_runner_set_format(dxr_runner* runner, uint32_t frames, double sample_rate)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        if (sample_rate != 0.0)
            requireSampleRate(sample_rate);
        if (frames > DXRDeviceRunner::maxFrames)
            fail(DXR_ERROR_ARGUMENT, "more than 1048576 frames in a cycle");
        requireStopped(*it);
        if (!it->runner->setFrameCount(frames) || !it->runner->setSampleRate(sample_rate))
            fail(DXR_ERROR_STATE, "the runner has started");
    });
}

dxr_status dxr_runner_set_quality(dxr_runner* runner, dxr_quality quality)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        if (quality != DXR_QUALITY_STANDARD && quality != DXR_QUALITY_HIGH)
            fail(DXR_ERROR_ARGUMENT, "the quality is neither DXR_QUALITY_STANDARD nor DXR_QUALITY_HIGH");
        requireStopped(*it);
        if (!it->runner->setConversionQuality(quality == DXR_QUALITY_HIGH ? DXRConversionQuality::High
                                                                          : DXRConversionQuality::Standard))
            fail(DXR_ERROR_STATE, "the runner has started");
    });
}

dxr_status dxr_runner_add(dxr_runner* runner, const dxr_node* node)
{
    return guarded(__func__, [&] { addNode(*runnerOf(runner), readStruct(node, "node")); });
}

dxr_status dxr_runner_remove(dxr_runner* runner, dxr_device* device)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        const CXRef<DXRDevice> removed = deviceOf(device);
        if (!it->runner->devices().contains(removed))
            fail(DXR_ERROR_NOT_FOUND, "the runner does not have this device");
        it->runner->removeDevice(removed);
    });
}

dxr_status dxr_runner_remove_default(dxr_runner* runner, dxr_direction direction)
{
    return guarded(__func__, [&] {
        runnerOf(runner)->runner->removeDefaultDevice(
            isInput(direction) ? DXRDeviceRunner::Direction::Input : DXRDeviceRunner::Direction::Output);
    });
}

dxr_status dxr_runner_start(dxr_runner* runner)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        if (it->hasEnded)
            it->runner->stop(); // the stop requested by a callback may still be pending
        it->hasEnded = false;
        it->runner->start();
    });
}

dxr_status dxr_runner_stop(dxr_runner* runner)
{
    return guarded(__func__, [&] { runnerOf(runner)->runner->stop(); });
}

dxr_status dxr_runner_get_state(dxr_runner* runner, dxr_runner_state* state)
{
    return guarded(__func__, [&] {
        const DXRDeviceRunner& it = *runnerOf(runner)->runner;
        (void)readStruct(state, "state");
        const DXRRunnerCounts counts = it.counts();
        dxr_runner_state now{};
        now.size = sizeof now;
        now.is_running = it.isRunning();
        now.frames = it.frameCount();
        now.sample_rate = it.sampleRate();
        now.sample_time = it.sampleTime();
        now.cycles = counts.cycles;
        now.late_cycles = counts.lateCycles;
        now.lost_frames = counts.lostFrames();
        now.restarts = counts.restarts;
        const std::string error = it.error().text;
        std::ranges::copy(dxr::utf8Prefix(error, sizeof now.error - 1), now.error);
        std::memcpy(state, &now, sizeof now);
    });
}

dxr_status dxr_runner_get_latency(dxr_runner* runner, dxr_device* device, dxr_latency* latency)
{
    return guarded(__func__, [&] {
        const CXRef<DXRDevice> wanted = deviceOf(device);
        (void)readStruct(latency, "latency");
        for (const DXRDeviceLatency& each : runnerOf(runner)->runner->latencies()) {
            if (each.deviceUID != wanted->deviceUID() || each.isInput != wanted->isInput())
                continue;
            *latency = {sizeof *latency,      each.seconds(),          each.frames(),    each.sampleRate,
                        each.deviceFrames,    each.safetyOffsetFrames, each.cycleFrames, each.blockFrames,
                        each.converterFrames, each.ringFrames};
            return;
        }
        fail(DXR_ERROR_STATE, "the device does not run in this runner");
    });
}

dxr_status dxr_runner_active_devices(dxr_runner* runner, dxr_device* const** devices, size_t* count)
{
    return guarded(__func__, [&] {
        require(devices, "devices");
        require(count, "count");
        giveList(runnerOf(runner)->runner->activeDevices(), devices, count);
    });
}

dxr_status dxr_runner_follow(dxr_runner* runner, dxr_runner_callback callback, void* user)
{
    return guarded(__func__, [&] {
        runnerOf(runner)->follow(callback ? CXBlock<void()>([callback, user] { callback(user); }) : nullptr);
    });
}

// ---- Simulated hardware

dxr_status dxr_simulated_new(dxr_clock clock, dxr_computer** computer)
{
    return guarded(__func__, [&] {
        require(computer, "computer");
        if (clock != DXR_CLOCK_REAL_TIME && clock != DXR_CLOCK_STEPPED)
            fail(DXR_ERROR_ARGUMENT, "the clock is neither DXR_CLOCK_REAL_TIME nor DXR_CLOCK_STEPPED");
        const CXRef<SimulatedHardware> made = SimulatedHardware::init(
            clock == DXR_CLOCK_STEPPED ? SimulatedClock::Stepped : SimulatedClock::RealTime);
        if (!HALSetHardwareDriver(made))
            fail(DXR_ERROR_STATE, "the process uses other hardware already");
        *computer = Handles::shared().give<dxr_computer>(Kind::Computer, made);
    });
}

dxr_status dxr_simulated_plug(dxr_computer* computer, const dxr_simulated_device* device)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        if (hardware->plug(builderOf(readStruct(device, "device"))) == kAudioObjectUnknown)
            fail(DXR_ERROR_STATE, "a device of this UID is plugged in");
    });
}

dxr_status dxr_simulated_unplug(dxr_computer* computer, const char* uid)
{
    return guarded(__func__, [&] { requirePlugged(computerOf(computer)->unplug(textOf(uid, "uid"))); });
}

dxr_status dxr_simulated_change(dxr_computer* computer, const dxr_simulated_device* device)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        const SimulatedDeviceBuilder changed = builderOf(readStruct(device, "device"));
        requirePlugged(
            hardware->reconfigure(device->uid, [&](SimulatedDeviceBuilder& each) { each = changed; }));
    });
}

dxr_status dxr_simulated_set_default(dxr_computer* computer, dxr_direction direction, const char* uid)
{
    return guarded(__func__, [&] {
        requirePlugged(computerOf(computer)->setDefault(directionOf(direction), textOf(uid, "uid")));
    });
}

dxr_status dxr_simulated_fail(dxr_computer* computer, int starts, int writes)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        hardware->failStarts(starts ? kAudioHardwareUnspecifiedError : kAudioHardwareNoError);
        hardware->failWrites(writes ? kAudioHardwareUnspecifiedError : kAudioHardwareNoError);
    });
}

dxr_status dxr_simulated_lose_cycles(dxr_computer* computer, const char* uid, uint32_t count)
{
    return guarded(__func__,
                   [&] { requirePlugged(computerOf(computer)->loseCycles(textOf(uid, "uid"), count)); });
}

dxr_status dxr_simulated_advance(dxr_computer* computer, uint64_t nanoseconds)
{
    return guarded(__func__, [&] { computerOf(computer)->advance(nanoseconds); });
}

dxr_status dxr_simulated_settle(dxr_computer* computer)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        for (int round = 0; round < 3; ++round) { // an update may request another
            hardware->settle();
            DXRDeviceManager::queue().sync([] {});
        }
        waitForEvents();
    });
}

} // extern "C"
