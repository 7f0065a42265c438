#include "DXRDeviceHardware.h"

#include "CXValue.h"
#include "DXRCoreBuffer.h"
#include "DXRPropertyAddress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <cwctype>
#include <locale.h> // NOLINT(modernize-deprecated-headers): uselocale is POSIX
#include <set>

namespace {

std::optional<std::string> textIn(const CXRef<CXObject>& object)
{
    const auto* value = dynamic_cast<const CXValue*>(object.get());
    return value && value->plist().is_string() ? std::optional(value->string()) : std::nullopt;
}

std::string textOr(const DXRPropertyAddress& address, AudioObjectID deviceID)
{
    return textIn(address.objectForObjectID(deviceID)).value_or("");
}

/// NaN would differ from itself at every comparison; neither NaN nor infinity can be archived.
bool isRate(double rate)
{
    return std::isfinite(rate) && rate > 0.0;
}

/// `text` in lower case, independent of the process's locale.
std::wstring lowered(const std::string& text)
{
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = utf8 ? uselocale(utf8) : nullptr;
    std::wstring wide(text.size(), L'\0');
    const char* from = text.c_str();
    std::mbstate_t state{};
    const size_t length = std::mbsrtowcs(wide.data(), &from, wide.size(), &state);
    if (length == static_cast<size_t>(-1))
        std::ranges::copy(text, wide.begin()); // not UTF-8: convert each byte on its own
    else
        wide.resize(length);
    std::ranges::transform(wide, wide.begin(),
                           [](wchar_t c) { return static_cast<wchar_t>(std::towlower(std::wint_t(c))); });
    if (before)
        uselocale(before);
    return wide;
}

} // namespace

std::vector<std::string> sortedCaseInsensitively(std::vector<std::string> texts)
{
    std::ranges::stable_sort(texts, {}, lowered);
    return texts;
}

bool DXRDeviceHardware::isPresent() const
{
    return DXRPropertyAddress::deviceDeviceUID()->objectForObjectID(_deviceID) != nullptr;
}

uint32_t DXRDeviceHardware::channelCount() const
{
    const auto data = DXRPropertyAddress::deviceStreamConfiguration(_scope())->dataForObjectID(_deviceID);
    constexpr size_t headSize = offsetof(AudioBufferList, buffers);
    uint32_t bufferCount = 0;
    if (!data || data->size() < sizeof bufferCount)
        return 0;
    std::memcpy(&bufferCount, data->data(), sizeof bufferCount);
    uint32_t count = 0;
    for (size_t at = headSize; bufferCount > 0 && at + sizeof(AudioBuffer) <= data->size();
         --bufferCount, at += sizeof(AudioBuffer)) {
        AudioBuffer buffer;
        std::memcpy(&buffer, data->data() + at, sizeof buffer);
        count += DXRCoreBuffer::initWithBuffer(&buffer)->channelCount();
    }
    return count;
}

std::string DXRDeviceHardware::manufacturer() const
{
    return textOr(*DXRPropertyAddress::objectManufacturer(), _deviceID);
}

std::string DXRDeviceHardware::model() const
{
    return textOr(*DXRPropertyAddress::deviceModel(), _deviceID);
}

std::string DXRDeviceHardware::name() const
{
    return textOr(*DXRPropertyAddress::objectName(), _deviceID);
}

std::string DXRDeviceHardware::transportType() const
{
    const auto code = DXRPropertyAddress::deviceTransportType()->uint32ForObjectID(_deviceID);
    return code.value_or(0) == 0 ? std::string() : stringWithFourCharCode(*code);
}

std::vector<uint32_t> DXRDeviceHardware::preferredStereoChannels(uint32_t channelCount) const
{
    std::vector<uint32_t> channels =
        DXRPropertyAddress::devicePreferredStereoChannels(_scope())->uint32ArrayForObjectID(_deviceID);
    if (channels.size() == 2)
        return channels;
    return {1, channelCount == 1 ? 1U : 2U};
}

double DXRDeviceHardware::sampleRate() const
{
    constexpr double fallback = 44100.0;
    const std::optional<double> rate = DXRPropertyAddress::deviceSampleRate()->doubleForObjectID(_deviceID);
    return rate && isRate(*rate) ? *rate : fallback;
}

std::vector<double> DXRDeviceHardware::availableSampleRates(double sampleRate) const
{
    static constexpr std::array usual{44100.0, 48000.0, 88200.0, 96000.0};
    std::set<double> rates;
    for (const auto& range :
         DXRPropertyAddress::deviceAvailableSampleRates()->valueRangeArrayForObjectID(_deviceID)) {
        if (!range->isValid())
            continue;
        if (range->isRange()) {
            const std::vector<double> contained = range->containedValues(usual);
            rates.insert(contained.begin(), contained.end());
        } else if (isRate(range->min())) {
            rates.insert(range->min());
        }
    }
    if (rates.empty())
        return {sampleRate};
    return {rates.begin(), rates.end()};
}

std::map<std::string, uint32_t> DXRDeviceHardware::sources() const
{
    const auto nameAddress = DXRPropertyAddress::deviceDataSourceName(_scope());
    std::map<std::string, uint32_t> sources;
    for (const uint32_t sourceID :
         DXRPropertyAddress::deviceAvailableDataSources(_scope())->uint32ArrayForObjectID(_deviceID)) {
        const auto name = textIn(nameAddress->objectForObjectID(_deviceID, &sourceID, sizeof sourceID));
        if (name)
            sources[*name] = sourceID;
    }
    return sources;
}

std::string DXRDeviceHardware::source() const
{
    const auto sourceID = DXRPropertyAddress::deviceDataSource(_scope())->uint32ForObjectID(_deviceID);
    if (!sourceID)
        return {};
    return textIn(DXRPropertyAddress::deviceDataSourceName(_scope())->objectForObjectID(_deviceID, &*sourceID,
                                                                                        sizeof *sourceID))
        .value_or("");
}

std::optional<bool> DXRDeviceHardware::isMuted() const
{
    const auto muted = DXRPropertyAddress::deviceMute(_scope(), kAudioObjectPropertyElementMain)
                           ->uint32ForObjectID(_deviceID);
    return muted ? std::optional(*muted != 0) : std::nullopt;
}

std::optional<double> DXRDeviceHardware::volume(std::span<const uint32_t> channels) const
{
    const auto read = [this](uint32_t element) {
        return DXRPropertyAddress::deviceVolumeScalar(_scope(), element)->floatForObjectID(_deviceID);
    };
    std::optional<double> volume = read(kAudioObjectPropertyElementMain);
    if (!volume) {
        double sum = 0.0;
        uint32_t count = 0;
        for (const uint32_t channel : channels) {
            if (const std::optional<float> one = read(channel)) {
                sum += double{*one};
                ++count;
            }
        }
        if (count > 0)
            volume = sum / count;
    }
    if (!volume)
        return std::nullopt;
    return *volume > 0.0 ? std::min(*volume, 1.0) : 0.0; // NaN becomes 0
}

bool DXRDeviceHardware::setSampleRate(double rate) const
{
    return DXRPropertyAddress::deviceSampleRate()->setDouble(rate, _deviceID);
}

bool DXRDeviceHardware::setSource(uint32_t sourceID) const
{
    return DXRPropertyAddress::deviceDataSource(_scope())->setUInt32(sourceID, _deviceID);
}

bool DXRDeviceHardware::setMuted(bool muted) const
{
    return DXRPropertyAddress::deviceMute(_scope(), kAudioObjectPropertyElementMain)
        ->setUInt32(muted ? 1 : 0, _deviceID);
}

bool DXRDeviceHardware::setVolume(double scalar, uint32_t element) const
{
    return DXRPropertyAddress::deviceVolumeScalar(_scope(), element)
        ->setFloat(static_cast<float>(scalar), _deviceID);
}
