// orv::StringArena: texts kept back to back in large blocks, handed out as
// string views.
#pragma once

#include <kestrow/Export.h>
#include <orv/String.h>

#include <cstddef>

namespace orv {

// A whole-MFT map keeps one name per record for as long as the map lives and
// never drops one. Kept here, each name costs its units and a terminator,
// with no block of its own to allocate, round up and free. The views it
// gives out are valid while the arena lives; a copy of a view is an ordinary
// string with its own text.
class KESTROW_API StringArena {
public:
    StringArena() noexcept = default;
    ~StringArena();
    StringArena(const StringArena&) = delete;
    StringArena& operator=(const StringArena&) = delete;

    // A view of a copy of `text` kept in the arena; the empty string needs
    // no copy.
    String keep(const String& text);

private:
    struct Block;
    Char16* room(std::size_t units);

    Block* m_blocks = nullptr; // the newest first
    Char16* m_next = nullptr;
    Char16* m_end = nullptr;
    std::size_t m_blockBytes = 0;
};

} // namespace orv
