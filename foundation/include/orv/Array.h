// orv::Array<T>: a growable value-type array.
//
// The array holds one pointer to its representation: a block that starts
// with the element count and the capacity (two unsigned 32-bit numbers),
// followed by room for `capacity` elements. A new array has room for 8;
// growth doubles from 8. A moved-from array has no representation at all
// (size 0; appending gives it a new one).
#pragma once

#include <orv/Allocator.h>
#include <orv/Assert.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace orv {

template <class T> struct ArrayRep {
    std::uint32_t size;
    std::uint32_t capacity;
};

template <class T> class Array {
public:
    typedef T value_type;

    static constexpr std::uint32_t INITIAL_CAPACITY = 8;

    // The largest capacity a representation may have.
    static constexpr std::uint32_t MAX_CAPACITY =
        static_cast<std::uint32_t>((std::uint32_t(0xffffffffU) - sizeof(ArrayRep<T>)) / sizeof(T));

    Array() : m_rep(newRep(INITIAL_CAPACITY)) {}
    Array(const Array& other) : m_rep(other.m_rep ? copyRep(other.m_rep) : nullptr) {}
    Array(Array&& other) noexcept : m_rep(other.m_rep) { other.m_rep = nullptr; }
    ~Array() { destroyRep(m_rep); }

    Array& operator=(const Array& other) {
        if (m_rep == other.m_rep)
            return *this;
        ArrayRep<T>* copy = other.m_rep ? copyRep(other.m_rep) : nullptr;
        destroyRep(m_rep);
        m_rep = copy;
        return *this;
    }

    Array& operator=(Array&& other) noexcept {
        if (m_rep != other.m_rep) {
            destroyRep(m_rep);
            m_rep = other.m_rep;
            other.m_rep = nullptr;
        }
        return *this;
    }

    void append(const T& value) {
        const std::uint32_t n = size();
        if (m_rep == nullptr || n == m_rep->capacity) {
            T copy(value); // the value may be one of this array's own elements
            grow(n + 1);
            new (elements() + n) T(std::move(copy));
        } else {
            new (elements() + n) T(value);
        }
        ++m_rep->size;
    }

    void append(T&& value) {
        const std::uint32_t n = size();
        if (m_rep == nullptr || n == m_rep->capacity) {
            T moved(std::move(value));
            grow(n + 1);
            new (elements() + n) T(std::move(moved));
        } else {
            new (elements() + n) T(std::move(value));
        }
        ++m_rep->size;
    }

    void appendArray(const Array& other) {
        const std::uint32_t count = other.size();
        if (count == 0)
            return;
        if (&other == this) {
            Array copy(other);
            appendArray(copy);
            return;
        }
        const std::uint32_t n = size();
        std::uint64_t needed = std::uint64_t(n) + count;
        if (needed > 0xffffffffULL)
            AssertionFailure::fail("ORVArrayRep", 107, CAPACITY_ASSERTION);
        if (m_rep == nullptr || needed > m_rep->capacity)
            grow(static_cast<std::uint32_t>(needed));
        const T* source = other.elements();
        for (std::uint32_t i = 0; i < count; ++i)
            new (elements() + n + i) T(source[i]);
        m_rep->size = static_cast<std::uint32_t>(needed);
    }

    bool contains(const T& value) const {
        const std::uint32_t n = size();
        const T* items = elements();
        for (std::uint32_t i = 0; i < n; ++i)
            if (items[i] == value)
                return true;
        return false;
    }

    // Removes every element; the representation and its capacity stay.
    void clear() {
        if (m_rep == nullptr)
            return;
        destroyElements(m_rep);
        m_rep->size = 0;
    }

    // Releases the representation and starts a new, empty one with room for 8.
    void reset() {
        ArrayRep<T>* fresh = newRep(INITIAL_CAPACITY);
        destroyRep(m_rep);
        m_rep = fresh;
    }

    // Makes room for at least `capacity` elements, by the growth rule.
    void reserve(std::uint32_t capacity) {
        if (m_rep == nullptr || capacity > m_rep->capacity)
            grow(capacity);
    }

    std::uint32_t size() const noexcept { return m_rep ? m_rep->size : 0; }
    std::uint32_t capacity() const noexcept { return m_rep ? m_rep->capacity : 0; }
    bool empty() const noexcept { return size() == 0; }
    bool hasRepresentation() const noexcept { return m_rep != nullptr; }

    T& operator[](std::uint32_t index) {
        if (index >= size())
            AssertionFailure::fail("ORVArrayCommon", 277, "index < size()");
        return elements()[index];
    }

    const T& operator[](std::uint32_t index) const {
        if (index >= size())
            AssertionFailure::fail("ORVArrayCommon", 277, "index < size()");
        return elements()[index];
    }

    T* begin() noexcept { return elements(); }
    T* end() noexcept { return elements() + size(); }
    const T* begin() const noexcept { return elements(); }
    const T* end() const noexcept { return elements() + size(); }

    // The capacity the growth rule gives for `needed` elements: 8, doubled
    // while below `needed`; `needed` itself when doubling overflows 32 bits.
    static std::uint32_t grownCapacity(std::uint32_t needed) noexcept {
        std::uint32_t capacity = INITIAL_CAPACITY;
        while (capacity < needed) {
            capacity *= 2;
            if (capacity == 0)
                return needed;
        }
        return capacity;
    }

private:
    static constexpr const char* CAPACITY_ASSERTION =
        "initialCapacity <= (Uint32(0xffffffffU)-sizeof(ArrayRep<T>))/sizeof(T)";
    static constexpr std::size_t HEADER_BYTES =
        sizeof(ArrayRep<T>) > alignof(T) ? sizeof(ArrayRep<T>) : alignof(T);

    static T* elementsOf(ArrayRep<T>* rep) noexcept {
        return rep ? reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(rep) + HEADER_BYTES)
                   : nullptr;
    }
    T* elements() const noexcept { return elementsOf(m_rep); }

    static std::size_t bytesFor(std::uint32_t capacity) noexcept {
        return HEADER_BYTES + std::size_t(capacity) * sizeof(T);
    }

    static ArrayRep<T>* newRep(std::uint32_t capacity) {
        if (capacity > MAX_CAPACITY)
            AssertionFailure::fail("ORVArrayRep", 107, CAPACITY_ASSERTION);
        auto* rep = static_cast<ArrayRep<T>*>(Allocator::allocate(bytesFor(capacity)));
        rep->size = 0;
        rep->capacity = capacity;
        return rep;
    }

    static void destroyElements(ArrayRep<T>* rep) noexcept {
        T* items = elementsOf(rep);
        for (std::uint32_t i = 0; i < rep->size; ++i)
            items[i].~T();
    }

    static void destroyRep(ArrayRep<T>* rep) noexcept {
        if (rep == nullptr)
            return;
        destroyElements(rep);
        Allocator::deallocate(rep, bytesFor(rep->capacity));
    }

    static ArrayRep<T>* copyRep(const ArrayRep<T>* source) {
        ArrayRep<T>* rep = newRep(grownCapacity(source->capacity));
        const T* from = elementsOf(const_cast<ArrayRep<T>*>(source));
        T* to = elementsOf(rep);
        for (std::uint32_t i = 0; i < source->size; ++i) {
            new (to + i) T(from[i]);
            rep->size = i + 1;
        }
        return rep;
    }

    // Moves the elements into a new representation with room for `needed`.
    void grow(std::uint32_t needed) {
        ArrayRep<T>* rep = newRep(grownCapacity(needed));
        if (m_rep != nullptr) {
            T* from = elements();
            T* to = elementsOf(rep);
            for (std::uint32_t i = 0; i < m_rep->size; ++i)
                new (to + i) T(std::move(from[i]));
            rep->size = m_rep->size;
            destroyRep(m_rep);
        }
        m_rep = rep;
    }

    ArrayRep<T>* m_rep;
};

} // namespace orv
