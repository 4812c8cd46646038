#include <orv/Allocator.h>
#include <orv/StringArena.h>

#include <cstring>

namespace orv {

namespace {

// Blocks start small, so that a table that keeps few names holds little, and
// double up to the size at which the system hands out a whole huge page.
constexpr std::size_t FIRST_BLOCK_BYTES = 16 * 1024;
constexpr std::size_t LAST_BLOCK_BYTES = 2 * 1024 * 1024;

} // namespace

struct StringArena::Block {
    Block* next;
    std::size_t bytes;
};

StringArena::~StringArena() {
    while (m_blocks != nullptr) {
        Block* next = m_blocks->next;
        Allocator::deallocate(m_blocks, m_blocks->bytes);
        m_blocks = next;
    }
}

// Room for `units` units at the end of the newest block, or in a new one. A
// text longer than a whole block gets a block of its own size.
Char16* StringArena::room(std::size_t units) {
    if (static_cast<std::size_t>(m_end - m_next) < units) {
        m_blockBytes = m_blockBytes == 0 ? FIRST_BLOCK_BYTES
                                         : (m_blockBytes < LAST_BLOCK_BYTES ? m_blockBytes * 2
                                                                            : LAST_BLOCK_BYTES);
        std::size_t bytes = m_blockBytes;
        const std::size_t needed = sizeof(Block) + units * sizeof(Char16);
        if (bytes < needed)
            bytes = needed;
        auto* block = static_cast<Block*>(Allocator::allocate(bytes));
        block->next = m_blocks;
        block->bytes = bytes;
        m_blocks = block;
        m_next = reinterpret_cast<Char16*>(block + 1);
        m_end = reinterpret_cast<Char16*>(reinterpret_cast<unsigned char*>(block) + bytes);
    }
    Char16* kept = m_next;
    m_next += units;
    return kept;
}

String StringArena::keep(const String& text) {
    if (text.empty())
        return String();
    const unsigned int n = text.size();
    Char16* units = room(std::size_t(n) + 1);
    std::memcpy(units, text.getUCS2Buffer(), std::size_t(n) * sizeof(Char16));
    units[n] = 0;
    return String::view(units, n);
}

} // namespace orv
