#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

/// A PCM of a card. Text as the kernel has it: any bytes.
struct AlsaPcmInfo {
    unsigned number = 0;
    std::string id = {}, name = {};
    std::array<bool, 2> has{};     ///< by HALDirection
    std::array<bool, 2> isFirst{}; ///< by HALDirection: whether the card's controls are this one's
    bool isOnly = false;           ///< whether the card has no other
};

/// What a card reports of itself. Text as the kernel has it: any bytes.
struct AlsaCardInfo {
    std::string id, driver, name, longName, components;
};

/// Which unit a card is. Nothing of it depends on the number that the kernel gave the card.
/// Threads: a value; any.
struct AlsaIdentity {
    std::string key;   ///< stays when the unit is plugged in again
    std::string place; ///< where it is plugged in: distinguishes units with equal keys
    std::optional<std::string> manufacturer, modelUID;
    uint32_t transportType = 0;
};

/// `system` is where the kernel's device tree is seen: /sys.
AlsaIdentity alsaIdentity(int cardNumber, const AlsaCardInfo& info, const std::filesystem::path& system);
