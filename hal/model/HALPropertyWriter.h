#pragma once

#include "AudioHardwareTypes.h"
#include "CXPlist.h"

#include <cstring>
#include <span>
#include <string>
#include <type_traits>

/// Receives the value of one property: counts its bytes, copies them into a buffer, or records them for
/// comparison.
/// Threads: one.
class HALPropertyWriter {
public:
    /// Only counts bytes.
    HALPropertyWriter() = default;
    /// Writes into `room`, the HAL client's buffer, which may be unaligned.
    explicit HALPropertyWriter(std::span<std::byte> room) : _room(room), _isCounting(false) {}
    /// Appends the value to `record`, objects by their contents: equal records mean equal values.
    explicit HALPropertyWriter(std::string& record) : _record(&record) {}

    template <class Value>
    requires std::is_trivially_copyable_v<Value>
    void put(const Value& value)
    {
        if (_record)
            _record->append(reinterpret_cast<const char*>(&value), sizeof value);
        else if (_size + sizeof value <= _room.size())
            std::memcpy(_room.data() + _size, &value, sizeof value);
        _size += sizeof value;
    }
    /// One object pointer: a CXValue of `value`, with a reference for the caller.
    void putValue(const CXPlist& value);
    void putString(const std::string& text) { putValue(text); }

    /// Copies the record with which the caller filled the buffer, for a property whose buffer also holds the
    /// argument. Returns false if the buffer is too small or none was given.
    template <class Record> bool take(Record& record, size_t bytes = sizeof(Record))
    {
        if (_room.size() < bytes)
            return false;
        std::memcpy(&record, _room.data(), bytes);
        return true;
    }

    bool isCounting() const noexcept { return _isCounting; }
    bool isRecording() const noexcept { return _record != nullptr; }
    /// The size of the whole value in bytes.
    uint32_t size() const noexcept { return static_cast<uint32_t>(_size); }
    bool fits() const noexcept { return _isCounting || _size <= _room.size(); }

private:
    std::span<std::byte> _room;
    std::string* _record = nullptr;
    size_t _size = 0;
    bool _isCounting = true;
};
