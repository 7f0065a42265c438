#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

struct AlsaPcmInfo;

/// What a card says of itself, as it came: any bytes.
struct AlsaCardInfo {
    std::string id, driver, name, longName, components;
    bool operator==(const AlsaCardInfo&) const = default;
};

/// Which unit a card is, and what it is called. Nothing of it depends on the number that the kernel gave the card.
/// Threads: a value; any.
struct AlsaIdentity {
    std::string key;   ///< stays when the unit is plugged in again
    std::string place; ///< where it is plugged in; tells units with equal keys apart
    std::string name;
    std::optional<std::string> manufacturer, modelUID;
    uint32_t transportType = 0;
};

/// `system` is where the kernel's device tree is seen: /sys.
AlsaIdentity alsaIdentity(int cardNumber, const AlsaCardInfo& info, const std::filesystem::path& system);
/// The name of one of a card's devices; `isOnly` when it has no other.
std::string alsaDeviceName(const AlsaIdentity& card, const AlsaPcmInfo& pcm, bool isOnly);
/// As the card's, but for outputs that lead to a screen.
uint32_t alsaTransportType(const AlsaIdentity& card, const AlsaPcmInfo& pcm);
