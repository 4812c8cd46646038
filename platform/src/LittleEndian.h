// Checked little-endian reads from a byte block read off a disk.
//
// Every on-disk structure the backend looks at is read through LeView: a
// read that would reach outside the block yields 0 and marks the view as
// overrun, so a parser reads a whole structure and then checks ok() once,
// instead of testing every field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrow::platform::disk {

class LeView {
public:
    LeView() = default;
    LeView(const void* data, std::size_t size)
        : m_data(static_cast<const std::uint8_t*>(data)), m_size(size) {}

    const std::uint8_t* data() const { return m_data; }
    std::size_t size() const { return m_size; }
    bool ok() const { return !m_overrun; }

    // True when [offset, offset + length) lies inside the block.
    bool has(std::size_t offset, std::size_t length) const {
        return offset <= m_size && length <= m_size - offset;
    }

    std::uint8_t u8(std::size_t offset) const { return static_cast<std::uint8_t>(le(offset, 1)); }
    std::uint16_t u16(std::size_t offset) const {
        return static_cast<std::uint16_t>(le(offset, 2));
    }
    std::uint32_t u32(std::size_t offset) const {
        return static_cast<std::uint32_t>(le(offset, 4));
    }
    std::uint64_t u64(std::size_t offset) const { return le(offset, 8); }
    std::int8_t s8(std::size_t offset) const { return static_cast<std::int8_t>(u8(offset)); }

    // The sub-block [offset, offset + length); an empty, overrun view when
    // it does not fit.
    LeView sub(std::size_t offset, std::size_t length) const {
        if (!has(offset, length)) {
            m_overrun = true;
            LeView bad;
            bad.m_overrun = true;
            return bad;
        }
        return LeView(m_data + offset, length);
    }

    // `count` 16-bit units from `offset` into `out` (a table such as
    // $UpCase), with one bounds check for all of them; false, and `out`
    // untouched, when they do not fit.
    bool u16s(std::size_t offset, std::size_t count, char16_t* out) const {
        if (count > m_size / 2 || !has(offset, 2 * count)) {
            m_overrun = true;
            return false;
        }
        const std::uint8_t* at = m_data + offset;
        for (std::size_t i = 0; i < count; ++i)
            out[i] = static_cast<char16_t>(at[2 * i] | at[2 * i + 1] << 8);
        return true;
    }

    bool bytesEqual(std::size_t offset, const void* expected, std::size_t length) const {
        return has(offset, length) && std::memcmp(m_data + offset, expected, length) == 0;
    }

private:
    std::uint64_t le(std::size_t offset, std::size_t width) const {
        if (!has(offset, width)) {
            m_overrun = true;
            return 0;
        }
        // A fixed eight-byte pattern, the same value on any host, which
        // compilers read with one load where the host is little-endian; a
        // loop over `width` bytes stays a loop, on every field of every
        // record a whole-MFT scan reads.
        std::uint8_t b[8] = {};
        std::memcpy(b, m_data + offset, width);
        return std::uint64_t{b[0]} | std::uint64_t{b[1]} << 8 | std::uint64_t{b[2]} << 16 |
               std::uint64_t{b[3]} << 24 | std::uint64_t{b[4]} << 32 | std::uint64_t{b[5]} << 40 |
               std::uint64_t{b[6]} << 48 | std::uint64_t{b[7]} << 56;
    }

    const std::uint8_t* m_data = nullptr;
    std::size_t m_size = 0;
    mutable bool m_overrun = false;
};

inline void storeLe16(std::uint8_t* at, std::uint16_t value) {
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}

} // namespace kestrow::platform::disk
