#include "StreamFormat.h"

#include "CXFourCharCode.h"
#include "NumberText.h"
#include "SampleRateHash.h"

#include <cstdio>

namespace streamFormat {

namespace {

constexpr uint32_t alignedHighFlag = 0x80000000; // means that no other flag is set; omitted from descriptions

std::string sampleText(const AudioStreamBasicDescription& format)
{
    char text[32];
    if (format.formatID != kAudioFormatLinearPCM) {
        std::snprintf(text, sizeof text, "/%X", format.formatFlags);
        return "'" + stringWithFourCharCode(format.formatID) + "'" + text;
    }
    if ((format.formatFlags & kAudioFormatFlagIsFloat) != 0)
        return {};
    std::snprintf(text, sizeof text, "%ui/%X", format.bitsPerChannel, format.formatFlags & ~alignedHighFlag);
    return text;
}

} // namespace

AudioStreamBasicDescription virtualFormat(uint32_t channelCount, double sampleRate) noexcept
{
    const auto bytesPerFrame = static_cast<uint32_t>(channelCount * sizeof(float));
    return {sampleRate,
            kAudioFormatLinearPCM,
            kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked,
            bytesPerFrame,
            1,
            bytesPerFrame,
            channelCount,
            32,
            0};
}

bool isMixable(const AudioStreamBasicDescription& format) noexcept
{
    return format.formatID == kAudioFormatLinearPCM &&
           (format.formatFlags & kAudioFormatFlagIsNonMixable) == 0;
}

size_t hash(const AudioStreamBasicDescription& format) noexcept
{
    return format.formatID ^ format.formatFlags ^ format.bytesPerPacket ^ format.framesPerPacket ^
           format.bytesPerFrame ^ format.channelsPerFrame ^ format.bitsPerChannel ^
           wholeNumberForHash(format.sampleRate);
}

std::string rateText(double sampleRate)
{
    return numberText(sampleRate / 1000) + "kHz";
}

std::vector<std::string> parts(const AudioStreamBasicDescription& format, std::string rate,
                               uint32_t knownChannelCount)
{
    std::vector<std::string> all{std::move(rate)};
    if (knownChannelCount == 0 || knownChannelCount != format.channelsPerFrame)
        all.push_back(std::to_string(format.channelsPerFrame) + "ch");
    if (std::string samples = sampleText(format); !samples.empty())
        all.push_back(std::move(samples));
    return all;
}

std::string joined(const std::vector<std::string>& parts)
{
    std::string text = "(";
    for (const std::string& part : parts)
        text += (text.size() > 1 ? ", " : "") + part;
    return text + ")";
}

} // namespace streamFormat
