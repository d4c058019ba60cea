#include "smt2/bufferpool.h"

#include "vrax/vraxassert.h"

namespace smt2 {

PoolBuffer::PoolBuffer(BufferPool* owner, std::unique_ptr<std::vector<std::uint8_t>> data)
    : m_owner(owner), m_data(std::move(data))
{
}

PoolBuffer::PoolBuffer(PoolBuffer&& other) noexcept
    : m_owner(other.m_owner), m_data(std::move(other.m_data))
{
    other.m_owner = nullptr;
}

PoolBuffer& PoolBuffer::operator=(PoolBuffer&& other) noexcept
{
    if (this != &other) {
        release();
        m_owner = other.m_owner;
        m_data = std::move(other.m_data);
        other.m_owner = nullptr;
    }
    return *this;
}

PoolBuffer::~PoolBuffer()
{
    release();
}

void PoolBuffer::release()
{
    if (m_owner && m_data)
        m_owner->giveBack(std::move(m_data));
    m_owner = nullptr;
    m_data.reset();
}

BufferPool::BufferPool(std::size_t maxBuffers) : m_maxBuffers(maxBuffers ? maxBuffers : 1) {}

BufferPool::~BufferPool()
{
    VRAX_ASSERT(m_inUse == 0);
}

PoolBuffer BufferPool::acquire(std::size_t size)
{
    std::unique_ptr<std::vector<std::uint8_t>> data;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_inUse >= m_maxBuffers)
            return {};
        ++m_inUse;
        if (!m_free.empty()) {
            data = std::move(m_free.back());
            m_free.pop_back();
            m_bytes -= data->capacity();
        }
    }
    if (!data)
        data = std::make_unique<std::vector<std::uint8_t>>();
    data->resize(size);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bytes += data->capacity();
    return PoolBuffer(this, std::move(data));
}

void BufferPool::giveBack(std::unique_ptr<std::vector<std::uint8_t>> data)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_inUse;
    // A buffer that grew far beyond what is usual is not kept.
    if (m_free.size() < m_maxBuffers && data->capacity() <= (1u << 20)) {
        m_free.push_back(std::move(data));
    } else {
        m_bytes -= data->capacity();
    }
}

std::size_t BufferPool::buffersInUse() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_inUse;
}

std::size_t BufferPool::bytesAllocated() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytes;
}

} // namespace smt2
