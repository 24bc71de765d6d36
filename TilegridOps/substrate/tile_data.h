#pragma once
#include "TilegridOps/substrate/traits.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <type_traits>
#include <vector>

namespace OST::TileTree3D {

/// A view of the elements of one tile of a channel: what a per-tile vector would be, in the slab of its depth. Valid until
/// tiles are added, removed or sorted.
template <class T> class TileVector {
public:
    TileVector() = default;
    TileVector(T* data, std::int32_t size) : data_(data), size_(size) {}
    T* data() const { return data_; }
    std::size_t size() const { return static_cast<std::size_t>(size_); }
    bool empty() const { return size_ == 0; }
    T& operator[](std::size_t i) const { return data_[i]; }
    T* begin() const { return data_; }
    T* end() const { return data_ + size_; }

private:
    T* data_ = nullptr;
    std::int32_t size_ = 0;
};

namespace detail {

/// Elements per axis of a tile with N voxels and H halo layers.
template <int N, int H> inline constexpr int arrayWidth = N + 2 * H;

/// Flat index of position (i,j,k), each from -H to N+H-1.
template <int N, int H> constexpr int elementIndex(int i, int j, int k)
{
    return flatIndex(arrayWidth<N, H>, i + H, j + H, k + H);
}

/// The tiles that a halo cache builds in place: they note which positions were added since a mark.
template <class T, bool Tracked> struct ElementTracking {};
template <class T> struct ElementTracking<T, true> {
    virtual ~ElementTracking() = default;
    /// Points the tile at an array that somebody else owns.
    virtual void setFlatPointer(T* data) = 0;
    virtual std::vector<int>::const_iterator beginElementsAdded() const { return added_.begin(); }
    virtual std::vector<int>::const_iterator endElementsAdded() const { return added_.end(); }
    virtual std::size_t elementsAddedSize() const { return added_.size(); }
    virtual void clearElementsAdded() { added_.clear(); }
    /// Notes the flat position of an element that was filled.
    void noteElementAdded(int flat) { added_.push_back(flat); }

protected:
    ElementTracking() = default;
    ElementTracking(ElementTracking const&) = default;
    ElementTracking& operator=(ElementTracking const&) = default;

private:
    std::vector<int> added_;
};

template <int N, int H> inline constexpr bool isTracked = H == 1 && N >= 5;

}  // namespace detail

/// Read-only view of a tile's elements; see `TileData`. False if the tile has no data.
template <class T, int N, int H, int = 0> class ConstTileData {
public:
    using Element = T;
    static constexpr int voxels = N, halo = H;

    ConstTileData() = default;
    ConstTileData(T const* data, std::int32_t size) : data_(data), size_(size) {}
    explicit operator bool() const { return data_ != nullptr; }
    std::int32_t size() const { return size_; }
    T const* data() const { return data_; }
    T const* begin() const { return data_; }
    T const* end() const { return data_ + size_; }
    T const& operator()(int flat) const { return data_[flat]; }
    T const& operator()(int i, int j, int k) const { return data_[detail::elementIndex<N, H>(i, j, k)]; }
    T const& operator()(int3 const& ijk) const { return (*this)(ijk.x, ijk.y, ijk.z); }
    T const& operator[](int3 const& ijk) const { return (*this)(ijk); }

private:
    T const* data_ = nullptr;
    std::int32_t size_ = 0;
};

/// Handle of a tile's elements: (N + 2H)^3 of them, i fastest, coordinates from -H to N+H-1 (N = 0: a list of points, flat
/// access only). Copies share the array. A handle from a channel is valid until tiles are added, removed or sorted; one made
/// with a count owns a scratch array together with its copies.
template <class T, int N, int H, int = 0> class TileData : public detail::ElementTracking<T, detail::isTracked<N, H>> {
public:
    using Element = T;
    static constexpr int voxels = N, halo = H;
    static constexpr int elements = detail::arrayWidth<N, H> * detail::arrayWidth<N, H> * detail::arrayWidth<N, H>;

    TileData() = default;
    TileData(T* data, std::int32_t size) : data_(data), size_(size) {}
    explicit TileData(int count) : scratch_(new T[count]()), data_(scratch_.get()), size_(count) {}
    TileData(int count, T const& value) : TileData(count) { set(value); }

    void setFlatPointer(T* data)
    {
        data_ = data;
        size_ = elements;
        scratch_.reset();
    }
    explicit operator bool() const { return data_ != nullptr; }
    std::int32_t size() const { return size_; }
    T* data() const { return data_; }
    T* begin() const { return data_; }
    T* end() const { return data_ + size_; }
    TileVector<T> vector() const { return {data_, size_}; }
    T& operator()(int flat) const { return data_[flat]; }
    T& operator()(int i, int j, int k) const { return data_[detail::elementIndex<N, H>(i, j, k)]; }
    T& operator()(int3 const& ijk) const { return (*this)(ijk.x, ijk.y, ijk.z); }
    T& operator[](int3 const& ijk) const { return (*this)(ijk); }
    operator ConstTileData<T, N, H>() const { return {data_, size_}; }

    /// Fills all elements.
    void set(T const& value) const
    {
        const T copy = value;  // `value` may be one of the elements
        std::fill(begin(), end(), copy);
    }
    /// Copies as many elements as both have.
    void set(ConstTileData<T, N, H> const& source) const { std::copy_n(source.data(), std::min(size_, source.size()), data_); }

private:
    std::shared_ptr<T[]> scratch_;
    T* data_ = nullptr;
    std::int32_t size_ = 0;
};

}  // namespace OST::TileTree3D
