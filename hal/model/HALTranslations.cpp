#include "HALTranslations.h"

#include "CXValue.h"

#include <algorithm>

namespace {

constexpr size_t usageHeadBytes = offsetof(AudioHardwareIOProcStreamUsage, streamIsOn);

struct UsageHead {
    void* ioProc;
    uint32_t numberStreams;
};

} // namespace

HALStatus halTakeTranslation(HALPropertyWriter& writer, AudioValueTranslation& translation, size_t inputBytes,
                             size_t outputBytes)
{
    if (!writer.take(translation) || translation.inputDataSize != inputBytes ||
        translation.outputDataSize < outputBytes)
        return kAudioHardwareBadPropertySizeError;
    if (!translation.inputData || !translation.outputData)
        return kAudioHardwareIllegalOperationError;
    translation.outputDataSize = static_cast<uint32_t>(outputBytes);
    return kAudioHardwareNoError;
}

HALStatus halReadSourceName(const HALDirectionState& state, HALPropertyWriter& writer)
{
    if (state.dataSources.empty())
        return kAudioHardwareUnknownPropertyError;
    if (writer.isRecording()) { // the results of all possible qualifiers
        for (const HALDataSourceState& source : state.dataSources) {
            writer.put(source.sourceID);
            writer.putString(source.name);
        }
        return kAudioHardwareNoError;
    }
    AudioValueTranslation translation{};
    if (!writer.isCounting()) {
        uint32_t sourceID = 0;
        CXObject* name = nullptr;
        if (const HALStatus status = halTakeTranslation(writer, translation, sizeof sourceID, sizeof name))
            return status;
        std::memcpy(&sourceID, translation.inputData, sizeof sourceID);
        const auto source = std::ranges::find(state.dataSources, sourceID, &HALDataSourceState::sourceID);
        if (source == state.dataSources.end())
            return kAudioHardwareIllegalOperationError;
        name = CXValue::initWithPlist(source->name).leak();
        std::memcpy(translation.outputData, &name, sizeof name);
    }
    writer.put(translation);
    return kAudioHardwareNoError;
}

HALStatus halReadStreamUsage(const HALIOProcTable& table, HALDirection direction, size_t streamCount,
                             HALPropertyWriter& writer)
{
    UsageHead head{nullptr, static_cast<uint32_t>(streamCount)};
    std::vector<uint32_t> usage(streamCount);
    if (!writer.isCounting()) {
        if (!writer.take(head, usageHeadBytes) || head.numberStreams < streamCount)
            return kAudioHardwareBadPropertySizeError;
        if (!table.contains(head.ioProc))
            return kAudioHardwareIllegalOperationError;
        usage = table.streamUsage(head.ioProc, direction, streamCount);
        head.numberStreams = static_cast<uint32_t>(streamCount);
    }
    writer.put(head.ioProc);
    writer.put(head.numberStreams);
    for (const uint32_t isOn : usage)
        writer.put(isOn);
    return kAudioHardwareNoError;
}

HALStatus halWriteStreamUsage(HALIOProcTable& table, HALDirection direction, std::span<const std::byte> value)
{
    UsageHead head{};
    if (value.size() < usageHeadBytes)
        return kAudioHardwareBadPropertySizeError;
    std::memcpy(&head, value.data(), usageHeadBytes);
    if (value.size() - usageHeadBytes < size_t{head.numberStreams} * sizeof(uint32_t))
        return kAudioHardwareBadPropertySizeError;
    std::vector<uint32_t> usage(head.numberStreams);
    if (!usage.empty())
        std::memcpy(usage.data(), value.data() + usageHeadBytes, usage.size() * sizeof(uint32_t));
    return table.setStreamUsage(head.ioProc, direction, usage) ? kAudioHardwareNoError
                                                               : kAudioHardwareIllegalOperationError;
}
