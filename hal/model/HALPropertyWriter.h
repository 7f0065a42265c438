#pragma once

#include "AudioHardwareTypes.h"
#include "CXPlist.h"

#include <cstring>
#include <span>
#include <string>
#include <type_traits>

/// Takes the value of one property: counts its bytes, copies as many as there is room for, or keeps it for
/// comparison.
/// Threads: one.
class HALPropertyWriter {
public:
    /// Counts only.
    HALPropertyWriter() = default;
    /// Writes into `room`, which the caller of the HAL owns and which may be unaligned.
    explicit HALPropertyWriter(std::span<std::byte> room) : _room(room), _isCounting(false) {}
    /// Appends the value to `record`, an object by its contents: equal records are equal values.
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

    /// For a property whose buffer also carries the question: the record as the caller filled it in. False
    /// when the buffer is too small, or none was given.
    template <class Record> bool take(Record& record, size_t bytes = sizeof(Record))
    {
        if (_room.size() < bytes)
            return false;
        std::memcpy(&record, _room.data(), bytes);
        return true;
    }

    bool isCounting() const noexcept { return _isCounting; }
    bool isRecording() const noexcept { return _record != nullptr; }
    /// The bytes of the whole value.
    uint32_t size() const noexcept { return static_cast<uint32_t>(_size); }
    bool fits() const noexcept { return _isCounting || _size <= _room.size(); }

private:
    std::span<std::byte> _room;
    std::string* _record = nullptr;
    size_t _size = 0;
    bool _isCounting = true;
};
