#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

struct spa_dict;
struct pw_properties;

/// The properties of an object on the server: text by key, as the server has it, of any bytes.
/// Threads: a value; one thread at a time.
class PipeWireProperties {
public:
    PipeWireProperties() = default;
    PipeWireProperties(std::initializer_list<std::pair<const std::string, std::string>> all) : _all(all) {}
    /// Null is no properties.
    explicit PipeWireProperties(const spa_dict* dictionary) { merge(dictionary); }

    /// Takes over what `dictionary` says; a key without a value is removed. Null changes nothing.
    void merge(const spa_dict* dictionary);
    void set(const std::string& key, std::string value) { _all[key] = std::move(value); }

    /// Null when the key is not there; it may also be there and be empty.
    const std::string* find(std::string_view key) const;
    /// Empty when the key is not there.
    const std::string& operator[](std::string_view key) const;
    /// Nothing when the key is not there or its text is no number.
    std::optional<uint32_t> number(std::string_view key) const;
    /// "true" and "1" are.
    bool isTrue(std::string_view key) const;

    /// A copy for a function of PipeWire that takes it over.
    pw_properties* copy() const;

private:
    std::map<std::string, std::string, std::less<>> _all;
};

/// `text` with every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string pipeWireText(std::string_view text);
