#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace smt2 {

class BufferPool;

// A send buffer taken from a pool; goes back to the pool when destroyed. Move-only.
class PoolBuffer
{
public:
    PoolBuffer() = default;
    PoolBuffer(PoolBuffer&& other) noexcept;
    PoolBuffer& operator=(PoolBuffer&& other) noexcept;
    ~PoolBuffer();

    explicit operator bool() const { return bool(m_data); }
    std::uint8_t* data() { return m_data->data(); }
    const std::uint8_t* data() const { return m_data->data(); }
    std::size_t size() const { return m_data ? m_data->size() : 0; }

private:
    friend class BufferPool;
    PoolBuffer(BufferPool* owner, std::unique_ptr<std::vector<std::uint8_t>> data);
    void release();

    BufferPool* m_owner = nullptr;
    std::unique_ptr<std::vector<std::uint8_t>> m_data;
};

// A bounded pool of send buffers, so that a sender holds at most a fixed number of copies of
// what it was given. Thread-safe. Every buffer must be given back before the pool is destroyed.
class BufferPool
{
public:
    // maxBuffers: how many buffers may be taken at once.
    explicit BufferPool(std::size_t maxBuffers = 4);
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    // A buffer of exactly size bytes, or an empty one when maxBuffers are taken.
    PoolBuffer acquire(std::size_t size);

    std::size_t maxBuffers() const { return m_maxBuffers; }
    std::size_t buffersInUse() const;
    // Bytes held by the pool and by buffers taken from it (capacity, not size).
    std::size_t bytesAllocated() const;

private:
    friend class PoolBuffer;
    void giveBack(std::unique_ptr<std::vector<std::uint8_t>> data);

    const std::size_t m_maxBuffers;
    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<std::vector<std::uint8_t>>> m_free;
    std::size_t m_inUse = 0;
    std::size_t m_bytes = 0;
};

} // namespace smt2
