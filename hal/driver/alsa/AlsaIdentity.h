#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

/// A PCM of a card. Text as the kernel reports it: any bytes.
struct AlsaPcmInfo {
    unsigned number = 0;
    std::string id = {}, name = {};
    std::array<bool, 2> has{};     ///< by HALDirection
    std::array<bool, 2> isFirst{}; ///< by HALDirection: whether the card's controls belong to this PCM
    bool isOnly = false;           ///< whether the card has no other PCM
};

/// The description that a card reports. Text as the kernel reports it: any bytes.
struct AlsaCardInfo {
    std::string id, driver, name, longName, components;
};

/// The identity of a card, independent of the number that the kernel assigned to it.
/// Threads: a value; any.
struct AlsaIdentity {
    std::string key;   ///< the same whenever the unit is plugged in again
    std::string place; ///< the port or slot: distinguishes units with equal keys
    std::optional<std::string> manufacturer, modelUID;
    uint32_t transportType = 0;
};

/// `system` is the mount point of the kernel's device tree: /sys.
AlsaIdentity alsaIdentity(int cardNumber, const AlsaCardInfo& info, const std::filesystem::path& system);
