#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

struct spa_dict;
struct pw_properties;

/// The properties of an object on the server: text by key. The text is as received and may contain any bytes.
/// Threads: a value; one thread at a time.
class PipeWireProperties {
public:
    PipeWireProperties() = default;
    PipeWireProperties(std::initializer_list<std::pair<const std::string, std::string>> all) : _all(all) {}
    /// Null means no properties.
    explicit PipeWireProperties(const spa_dict* dictionary) { merge(dictionary); }

    /// Sets every key in `dictionary`; a key without a value is removed. Null changes nothing.
    void merge(const spa_dict* dictionary);
    void set(const std::string& key, std::string value) { _all[key] = std::move(value); }

    /// Null if the key is missing. The text of a key may be empty.
    const std::string* find(std::string_view key) const;
    /// Empty if the key is missing.
    const std::string& operator[](std::string_view key) const;
    /// nullopt if the key is missing or its text is not a number.
    std::optional<uint32_t> number(std::string_view key) const;
    /// Whether the text is "true" or "1".
    bool isTrue(std::string_view key) const;

    /// A copy for a PipeWire function that takes ownership of it.
    pw_properties* copy() const;

private:
    std::map<std::string, std::string, std::less<>> _all;
};

/// `text` with every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string pipeWireText(std::string_view text);
