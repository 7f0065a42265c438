#include "PipeWireIOPort.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <sys/mman.h>

namespace {

pw_buffer* current = nullptr; // the buffer that every port returns

} // namespace

// These replace libpipewire's functions in this program, so that a port needs no server.
pw_buffer* pw_filter_dequeue_buffer(void*)
{
    return current;
}
int pw_filter_queue_buffer(void*, pw_buffer*)
{
    return 0;
}

namespace {

constexpr uint32_t frames = 64, pageSize = 4096, blockSize = 2 * pageSize;

/// Two buffers as a server lays them out: one block of shared memory, which is mapped page by page.
class PipeWireIOPortTest : public testing::Test {
protected:
    struct Buffer {
        pw_memmap* map = nullptr;
        spa_chunk* atServer = nullptr; // the same bytes as data.chunk
        spa_data data{};
        spa_buffer description{};
        pw_buffer buffer{};
    };

    PipeWireIOPortTest()
    {
        for (uint32_t i = 0; i < 2; ++i) {
            Buffer& each = buffers[i];
            each.map = pw_memblock_map(block, PW_MEMMAP_FLAG_READWRITE, i * pageSize, pageSize, nullptr);
            each.atServer = reinterpret_cast<spa_chunk*>(static_cast<std::byte*>(server) + i * pageSize);
            each.data.chunk = static_cast<spa_chunk*>(each.map->ptr);
            each.data.data = each.data.chunk + 1;
            each.data.maxsize = frames * sizeof(float);
            each.description.datas = &each.data;
            each.buffer.buffer = &each.description;
        }
    }
    ~PipeWireIOPortTest() override
    {
        munmap(server, blockSize);
        pw_mempool_destroy(pool);
    }

    pw_mempool* const pool = pw_mempool_new(nullptr);
    pw_memblock* const block = pw_mempool_alloc(pool, PW_MEMBLOCK_FLAG_READWRITE, SPA_DATA_MemFd, blockSize);
    void* const server = mmap(nullptr, blockSize, PROT_READ | PROT_WRITE, MAP_SHARED, block->fd, 0);
    std::array<Buffer, 2> buffers;
};

// As if another client had destroyed the link just after the start.
TEST_F(PipeWireIOPortTest, anOutputIsWrittenToAfterTheLibraryHasFreedItsBuffers)
{
    PipeWireIOPort port(pool, true);
    current = &buffers[0].buffer;
    EXPECT_FALSE(port.samples(frames)) << "no buffer yet";
    for (Buffer& each : buffers)
        port.addBuffer(each.buffer);
    for (Buffer& each : buffers) {
        pw_memmap_free(each.map);
        each.data = {};
    }
    for (Buffer& each : buffers) {
        current = &each.buffer;
        float* const samples = port.samples(frames);
        ASSERT_TRUE(samples);
        std::fill_n(samples, frames, 0.5F);
        EXPECT_EQ(each.atServer->size, frames * sizeof(float));
        EXPECT_EQ(reinterpret_cast<const float*>(each.atServer + 1)[frames - 1], 0.5F);
        EXPECT_FALSE(port.samples(frames + 1));
        EXPECT_EQ(each.atServer->size, 0U);
    }
    EXPECT_FALSE(port.hasLostMemory());
    pw_mempool_remove_id(pool, block->id);
    EXPECT_TRUE(port.hasLostMemory());
    for (Buffer& each : buffers)
        port.removeBuffer(each.buffer);
    EXPECT_FALSE(port.hasLostMemory());
    EXPECT_FALSE(port.samples(frames)) << "a buffer without memory";
}

TEST_F(PipeWireIOPortTest, anInputReadsNothingBeyondItsBuffer)
{
    PipeWireIOPort port(pool, false);
    port.addBuffer(buffers[0].buffer);
    current = &buffers[0].buffer;
    constexpr uint32_t size = frames * sizeof(float);
    const struct {
        const char* what;
        uint32_t offset, size;
        ptrdiff_t readAt; // -1: not read
    } rows[] = {
        {"the second half", size / 2, size / 2, size / 2},
        {"fewer bytes than the cycle has", 0, size / 2 - 1, -1},
        {"beyond the end", size / 2 + 1, size, -1},
        {"an offset beyond the end", size + 1, size, -1},
        {"an offset that overflows", 0xFFFFFFFF, size, -1},
        {"all", 0, size, 0},
    };
    for (const auto& row : rows) {
        *buffers[0].data.chunk = {.offset = row.offset, .size = row.size, .stride = 0, .flags = 0};
        const auto* const samples = reinterpret_cast<std::byte*>(port.samples(frames / 2));
        EXPECT_EQ(samples ? samples - static_cast<std::byte*>(buffers[0].data.data) : -1, row.readAt)
            << row.what;
    }
    port.close();
    EXPECT_FALSE(port.samples(frames / 2));
}

} // namespace
