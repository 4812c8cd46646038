// A fuzzer's reproducer written down as the non-zero byte spans of an
// otherwise zero input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace kestrow::regression {

struct Span {
    std::size_t offset;
    std::initializer_list<std::uint8_t> bytes;
};

inline std::vector<std::uint8_t> reproducer(std::size_t size, std::initializer_list<Span> spans) {
    std::vector<std::uint8_t> input(size, 0);
    for (const Span& span : spans) {
        std::size_t at = span.offset;
        for (std::uint8_t byte : span.bytes)
            input.at(at++) = byte;
    }
    return input;
}

} // namespace kestrow::regression
