// orv::Buffer<T>: a byte buffer that owns its block or views a caller's area.
//
// Three fields: data, size and capacity (in bytes). A capacity of 0 with a
// data pointer means the buffer views memory it does not own (such as a fixed
// area on the caller's stack) and never frees it; growing such a buffer moves
// it to an owned block.
#pragma once

#include <kestrow/Export.h>

#include <orv/Allocator.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace orv {

template <class T = unsigned char> class Buffer {
    static_assert(sizeof(T) == 1, "orv::Buffer holds bytes");

public:
    Buffer() noexcept : m_data(nullptr), m_size(0), m_capacity(0) {}

    // A view of a caller's area; the area is never freed by the buffer.
    Buffer(T* area, unsigned long long size) noexcept : m_data(area), m_size(size), m_capacity(0) {}

    Buffer(const Buffer& other) : Buffer() { assign(other.m_data, other.m_size); }
    Buffer(Buffer&& other) noexcept
        : m_data(other.m_data), m_size(other.m_size), m_capacity(other.m_capacity) {
        other.m_data = nullptr;
        other.m_size = 0;
        other.m_capacity = 0;
    }
    ~Buffer() { release(); }

    Buffer& operator=(const Buffer& other) {
        if (this != &other) {
            if (other.m_size == 0) {
                release();
            } else {
                Buffer copy(other);
                *this = static_cast<Buffer&&>(copy);
            }
        }
        return *this;
    }

    Buffer& operator=(Buffer&& other) noexcept {
        if (this != &other) {
            release();
            m_data = other.m_data;
            m_size = other.m_size;
            m_capacity = other.m_capacity;
            other.m_data = nullptr;
            other.m_size = 0;
            other.m_capacity = 0;
        }
        return *this;
    }

    // Frees the block if it is owned, then clears all three fields.
    void release() noexcept {
        if (m_capacity != 0)
            freeBlock(m_data, m_capacity);
        m_data = nullptr;
        m_size = 0;
        m_capacity = 0;
    }

    // Resizes to n bytes. An owned block is kept when n lies above half its
    // capacity and below it; otherwise a block of exactly n bytes replaces
    // it, holding the old bytes up to the smaller size, and the grown part
    // zeroed when `zeroFill` is set.
    void resize(unsigned long long n, bool zeroFill = true) {
        if (n == m_size)
            return;
        if (n == 0) {
            release();
            return;
        }
        if (m_capacity != 0 && m_capacity / 2 < n && n < m_capacity) {
            m_size = n;
            return;
        }
        T* block = allocateBlock(n, zeroFill && m_size == 0);
        const unsigned long long kept = m_size < n ? m_size : n;
        if (kept != 0)
            std::memcpy(block, m_data, static_cast<std::size_t>(kept));
        if (zeroFill && n > m_size && m_size != 0)
            std::memset(block + m_size, 0, static_cast<std::size_t>(n - m_size));
        release();
        m_data = block;
        m_size = n;
        m_capacity = n;
    }

    // Replaces the contents with n bytes from `source`. An owned block is
    // reused when n lies above half its capacity and within it.
    void assign(const T* source, unsigned long long n) {
        if (n == 0 || source == nullptr) {
            release();
            return;
        }
        if (m_capacity != 0 && m_capacity / 2 < n && n <= m_capacity) {
            std::memmove(m_data, source, static_cast<std::size_t>(n));
            m_size = n;
            return;
        }
        T* block = allocateBlock(n, false);
        std::memcpy(block, source, static_cast<std::size_t>(n));
        release();
        m_data = block;
        m_size = n;
        m_capacity = n;
    }

    T* data() noexcept { return m_data; }
    const T* data() const noexcept { return m_data; }
    unsigned long long size() const noexcept { return m_size; }
    unsigned long long capacity() const noexcept { return m_capacity; }
    bool ownsData() const noexcept { return m_capacity != 0; }

private:
    // Small blocks come from the heap. Large ones (the record buffer may be
    // hundreds of MiB) come from the system through the foundation's
    // allocator, zeroed, in whole pages laid on huge pages where it has them:
    // a read into a fresh buffer then faults once per 2 MiB, not per 4 KiB.
    static T* allocateBlock(unsigned long long n, bool zeroed) {
        if (n > static_cast<unsigned long long>(static_cast<std::size_t>(-1)))
            throw std::bad_alloc();
        const std::size_t bytes = static_cast<std::size_t>(n);
        if (bytes >= Allocator::LARGE_BLOCK_SIZE)
            return static_cast<T*>(Allocator::allocateZeroed(bytes));
        void* block = zeroed ? std::calloc(bytes, 1) : std::malloc(bytes);
        if (block == nullptr)
            throw std::bad_alloc();
        return static_cast<T*>(block);
    }

    static void freeBlock(T* block, unsigned long long capacity) noexcept {
        if (capacity >= Allocator::LARGE_BLOCK_SIZE)
            Allocator::deallocate(block, static_cast<std::size_t>(capacity));
        else
            std::free(block);
    }

    T* m_data;
    unsigned long long m_size;
    unsigned long long m_capacity;
};

} // namespace orv
