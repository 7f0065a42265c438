#pragma once

#include "PipeWireSession.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

/// A metadata object of the server: the text values, by key, that apply to the server as a whole.
/// Threads: the loop's.
class PipeWireMetadata {
public:
    /// Calls `changed` after every change.
    PipeWireMetadata(PipeWireSession& session, uint32_t id, PipeWireLoop::Work changed);
    ~PipeWireMetadata();
    PipeWireMetadata(const PipeWireMetadata&) = delete;
    PipeWireMetadata& operator=(const PipeWireMetadata&) = delete;

    uint32_t id() const noexcept { return _id; } ///< the server's
    /// The `name` in a value that is a JSON object; empty if there is none.
    std::string name(const std::string& key) const;
    void setName(const std::string& key, const std::string& name);
    /// Every whole number in the value (a number or a list of numbers), in order.
    std::vector<uint32_t> numbers(const std::string& key) const;

private:
    struct Listener;
    static int _property(void* data, uint32_t subject, const char* key, const char* type, const char* value);

    const uint32_t _id;
    const PipeWireLoop::Work _changed;
    const std::unique_ptr<Listener> _listener;
    pw_proxy* const _proxy;
    std::map<std::string, std::string> _values;
};
