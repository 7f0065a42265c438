#include "PipeWirePods.h"

#include <spa/param/audio/format.h>
#include <spa/param/latency.h>
#include <spa/param/profile.h>
#include <spa/param/props.h>
#include <spa/param/route.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/pod/parser.h>

namespace {

/// The value of a key of an object; null if the pod is not an object or has no such key.
const spa_pod* valueOf(const spa_pod* pod, uint32_t key)
{
    if (!pod || !spa_pod_is_object(pod))
        return nullptr;
    const spa_pod_prop* found = spa_pod_find_prop(pod, nullptr, key);
    return found ? &found->value : nullptr;
}

std::optional<uint32_t> numberOf(const spa_pod* pod, uint32_t key)
{
    const spa_pod* value = valueOf(pod, key);
    int32_t number = 0;
    uint32_t id = 0;
    if (value && spa_pod_get_int(value, &number) == 0)
        return static_cast<uint32_t>(number);
    if (value && spa_pod_get_id(value, &id) == 0)
        return id;
    return std::nullopt;
}

std::string textOf(const spa_pod* pod, uint32_t key)
{
    const spa_pod* value = valueOf(pod, key);
    const char* text = nullptr;
    return value && spa_pod_get_string(value, &text) == 0 && text ? text : "";
}

template <class Value> std::vector<Value> arrayOf(const spa_pod* pod, uint32_t key, uint32_t type)
{
    const spa_pod* value = valueOf(pod, key);
    if (!value || !spa_pod_is_array(value))
        return {};
    uint32_t count = 0;
    const auto* first = static_cast<const Value*>(spa_pod_get_array(value, &count));
    if (SPA_POD_ARRAY_VALUE_TYPE(value) != type || SPA_POD_ARRAY_VALUE_SIZE(value) != sizeof(Value))
        return {};
    return {first, first + count};
}

std::vector<uint32_t> numbersOf(const spa_pod* pod, uint32_t key)
{
    const std::vector<int32_t> all = arrayOf<int32_t>(pod, key, SPA_TYPE_Int);
    return {all.begin(), all.end()};
}

/// The text of `key` in a struct that contains a count followed by keys and values.
std::string textOfDictionary(const spa_pod* pod, const std::string& key)
{
    spa_pod_parser parser;
    spa_pod_frame frame;
    int32_t count = 0;
    if (!pod)
        return {};
    spa_pod_parser_pod(&parser, pod);
    if (spa_pod_parser_push_struct(&parser, &frame) < 0 || spa_pod_parser_get_int(&parser, &count) < 0)
        return {};
    for (const char *name, *value;
         spa_pod_parser_get_string(&parser, &name) == 0 && spa_pod_parser_get_string(&parser, &value) == 0;)
        if (key == name)
            return value;
    return {};
}

/// Builds an object, in a buffer for the amplitudes and a few other values, and passes it to `send`.
void withObject(uint32_t type, uint32_t id, const PipeWireVolumeProps& change,
                const std::function<void(spa_pod_builder*)>& fill,
                const std::function<void(const spa_pod*)>& send)
{
    std::vector<uint64_t> room(64 + change.amplitudes.size()); // parameters are aligned to 8 bytes
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, room.data(), static_cast<uint32_t>(room.size() * sizeof room[0]));
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, type, id);
    fill(&builder);
    send(static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame)));
}

void addVolume(spa_pod_builder* builder, const PipeWireVolumeProps& change)
{
    if (change.isMuted) {
        spa_pod_builder_prop(builder, SPA_PROP_mute, 0);
        spa_pod_builder_bool(builder, *change.isMuted);
    }
    if (!change.amplitudes.empty()) {
        spa_pod_builder_prop(builder, SPA_PROP_channelVolumes, 0);
        spa_pod_builder_array(builder, sizeof(float), SPA_TYPE_Float,
                              static_cast<uint32_t>(change.amplitudes.size()), change.amplitudes.data());
    }
}

void addNumber(spa_pod_builder* builder, uint32_t key, uint32_t number)
{
    spa_pod_builder_prop(builder, key, 0);
    spa_pod_builder_int(builder, static_cast<int32_t>(number));
}

} // namespace

PipeWireVolumeProps pipeWireParseProps(const spa_pod* param)
{
    PipeWireVolumeProps props;
    props.amplitudes = arrayOf<float>(param, SPA_PROP_channelVolumes, SPA_TYPE_Float);
    bool muted = false;
    const spa_pod* mute = valueOf(param, SPA_PROP_mute);
    if (mute && spa_pod_get_bool(mute, &muted) == 0)
        props.isMuted = muted;
    return props;
}

std::optional<PipeWireRoute> pipeWireParseRoute(const spa_pod* param)
{
    const std::optional<uint32_t> index = numberOf(param, SPA_PARAM_ROUTE_index);
    const std::optional<uint32_t> direction = numberOf(param, SPA_PARAM_ROUTE_direction);
    if (!index || !direction)
        return std::nullopt;
    PipeWireRoute route;
    route.index = *index;
    route.isInput = *direction == SPA_DIRECTION_INPUT;
    route.isUnplugged = numberOf(param, SPA_PARAM_ROUTE_available) == SPA_PARAM_AVAILABILITY_no;
    route.description = textOf(param, SPA_PARAM_ROUTE_description);
    if (route.description.empty())
        route.description = textOf(param, SPA_PARAM_ROUTE_name);
    route.portType = textOfDictionary(valueOf(param, SPA_PARAM_ROUTE_info), "port.type");
    route.devices = numbersOf(param, SPA_PARAM_ROUTE_devices);
    route.profiles = numbersOf(param, SPA_PARAM_ROUTE_profiles);
    route.device = numberOf(param, SPA_PARAM_ROUTE_device);
    route.props = pipeWireParseProps(valueOf(param, SPA_PARAM_ROUTE_props));
    return route;
}

std::optional<uint32_t> pipeWireParseProfile(const spa_pod* param)
{
    return numberOf(param, SPA_PARAM_PROFILE_index);
}

std::vector<PipeWireRateRange> pipeWireParseRates(const spa_pod* format)
{
    const spa_pod* value = valueOf(format, SPA_FORMAT_AUDIO_rate);
    if (!value || (SPA_POD_TYPE(value) == SPA_TYPE_Choice && !spa_pod_is_choice(value)))
        return {};
    uint32_t count = 0;
    uint32_t choice = SPA_CHOICE_None;
    const spa_pod* values = spa_pod_get_values(value, &count, &choice);
    if (!values || SPA_POD_TYPE(values) != SPA_TYPE_Int || SPA_POD_BODY_SIZE(values) != sizeof(int32_t) ||
        count == 0)
        return {};
    const auto* rates = static_cast<const uint32_t*>(SPA_POD_BODY_CONST(values));
    // The first value of a choice is the default, followed by minimum and maximum or by all alternatives.
    if (choice == SPA_CHOICE_None || count == 1)
        return {{rates[0], rates[0]}};
    if (choice == SPA_CHOICE_Range || choice == SPA_CHOICE_Step)
        return count < 3 ? std::vector<PipeWireRateRange>{}
                         : std::vector{PipeWireRateRange{rates[1], rates[2]}};
    std::vector<PipeWireRateRange> all;
    for (uint32_t i = 1; i < count; ++i)
        all.push_back({rates[i], rates[i]});
    return all;
}

std::optional<PipeWireLatency> pipeWireParseLatency(const spa_pod* param)
{
    const std::optional<uint32_t> direction = numberOf(param, SPA_PARAM_LATENCY_direction);
    if (!direction)
        return std::nullopt;
    PipeWireLatency latency;
    latency.isInput = *direction == SPA_DIRECTION_INPUT;
    float quantums = 0.0F;
    if (const spa_pod* value = valueOf(param, SPA_PARAM_LATENCY_maxQuantum))
        spa_pod_get_float(value, &quantums);
    latency.quantums = static_cast<double>(quantums);
    latency.frames = numberOf(param, SPA_PARAM_LATENCY_maxRate).value_or(0);
    int64_t nanoseconds = 0;
    if (const spa_pod* value = valueOf(param, SPA_PARAM_LATENCY_maxNs))
        spa_pod_get_long(value, &nanoseconds);
    latency.nanoseconds = nanoseconds > 0 ? static_cast<uint64_t>(nanoseconds) : 0;
    return latency;
}

void pipeWireWithProps(const PipeWireVolumeProps& change, const std::function<void(const spa_pod*)>& send)
{
    withObject(
        SPA_TYPE_OBJECT_Props, SPA_PARAM_Props, change,
        [&](spa_pod_builder* builder) { addVolume(builder, change); }, send);
}

void pipeWireWithRoute(uint32_t index, uint32_t device, const PipeWireVolumeProps& change,
                       const std::function<void(const spa_pod*)>& send)
{
    const auto fill = [&](spa_pod_builder* builder) {
        addNumber(builder, SPA_PARAM_ROUTE_index, index);
        addNumber(builder, SPA_PARAM_ROUTE_device, device);
        if (change.isMuted || !change.amplitudes.empty()) {
            spa_pod_frame frame;
            spa_pod_builder_prop(builder, SPA_PARAM_ROUTE_props, 0);
            spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Route);
            addVolume(builder, change);
            spa_pod_builder_pop(builder, &frame);
        }
        spa_pod_builder_prop(builder, SPA_PARAM_ROUTE_save, 0);
        spa_pod_builder_bool(builder, true);
    };
    withObject(SPA_TYPE_OBJECT_ParamRoute, SPA_PARAM_Route, change, fill, send);
}
