#pragma once
#include "TilegridOps/host/export.h"

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

namespace OST {

/// The substrate's allocator: `size` bytes at a multiple of `alignment` (a power of two); throws std::bad_alloc.
TILEGRID_API void* allocate_jemalloc(std::size_t size, std::size_t alignment);
TILEGRID_API void deallocate_jemalloc(void* pointer);

}  // namespace OST

namespace tilegrid {

/// A contiguous run of bytes that grows at its end and keeps its content when it moves. The 64 bytes before and after the
/// capacity may be read (their values are arbitrary), so that kernels can load whole vectors past a tile's end. Pages of
/// large slabs come straight from the system and count as used once they are touched.
class TILEGRID_API RawSlab {
public:
    static constexpr std::size_t kMargin = 64;

    RawSlab() = default;
    RawSlab(RawSlab const& other);
    RawSlab(RawSlab&& other) noexcept { swap(other); }
    RawSlab& operator=(RawSlab other) noexcept
    {
        swap(other);
        return *this;
    }
    ~RawSlab();

    std::byte* data() { return data_; }
    std::byte const* data() const { return data_; }
    std::size_t size() const { return size_; }
    std::size_t capacity() const { return capacity_; }
    /// Sets the size; bytes up to the old size keep their values, new ones have arbitrary values.
    void resize(std::size_t bytes);
    /// Makes room without changing the size.
    void reserve(std::size_t bytes);
    void swap(RawSlab& other) noexcept;

private:
    void reallocate(std::size_t capacity);
    std::byte* data_ = nullptr;
    std::size_t size_ = 0, capacity_ = 0;
};

/// A run of values that may be moved by copying their bytes.
template <class T> class Slab {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    std::size_t size() const { return raw_.size() / sizeof(T); }
    bool empty() const { return raw_.size() == 0; }
    T* data() { return reinterpret_cast<T*>(raw_.data()); }
    T const* data() const { return reinterpret_cast<T const*>(raw_.data()); }
    T& operator[](std::size_t i) { return data()[i]; }
    T const& operator[](std::size_t i) const { return data()[i]; }
    T* begin() { return data(); }
    T* end() { return data() + size(); }
    T const* begin() const { return data(); }
    T const* end() const { return data() + size(); }
    void resize(std::size_t count) { raw_.resize(count * sizeof(T)); }
    void reserve(std::size_t count) { raw_.reserve(count * sizeof(T)); }
    void clear() { raw_.resize(0); }
    void push_back(T const& value)
    {
        const T copy = value;  // `value` may lie in this slab, which may move
        const std::size_t at = size();
        raw_.resize((at + 1) * sizeof(T));
        std::memcpy(static_cast<void*>(data() + at), &copy, sizeof(T));
    }
    std::size_t usedBytes() const { return raw_.size(); }
    std::size_t reservedBytes() const { return raw_.capacity(); }

private:
    RawSlab raw_;
};

}  // namespace tilegrid
