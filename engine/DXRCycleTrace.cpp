#include "DXRCycleTrace.h"

#include <algorithm>
#include <bit>

CXRef<DXRCycleTrace> DXRCycleTrace::init(uint32_t minRecords)
{
    const uint32_t records = std::clamp(minRecords, 1U, maxRecords);
    return CXRef<DXRCycleTrace>::adopt(new DXRCycleTrace(std::bit_ceil(records)));
}

DXRCycleTrace::DXRCycleTrace(uint64_t capacity)
    : _mask(capacity - 1), _records(std::make_unique<DXRCycleRecord[]>(capacity))
{}

void DXRCycleTrace::write(const DXRCycleRecord& record) noexcept
{
    const uint64_t written = _written.load(std::memory_order_relaxed);
    const uint64_t dropped = _dropped.load(std::memory_order_relaxed);
    if (written - _readSeen > _mask)
        _readSeen = _read.load(std::memory_order_acquire);
    if (written - _readSeen > _mask) {
        _dropped.store(dropped + 1, std::memory_order_relaxed);
        return;
    }
    DXRCycleRecord& place = _records[written & _mask];
    place = record;
    place.droppedRecords = dropped;
    _written.store(written + 1, std::memory_order_release);
}

size_t DXRCycleTrace::read(std::span<DXRCycleRecord> records) noexcept
{
    const uint64_t read = _read.load(std::memory_order_relaxed);
    const uint64_t count =
        std::min<uint64_t>(_written.load(std::memory_order_acquire) - read, records.size());
    for (uint64_t i = 0; i < count; ++i)
        records[i] = _records[(read + i) & _mask];
    _read.store(read + count, std::memory_order_release);
    return count;
}
