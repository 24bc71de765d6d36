#pragma once
#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <utility>

namespace Corvid {

/// A growing array of values. Elements are stored one by one, also those of type bool, so that different elements may be
/// written from different threads.
template <class T> class Array {
public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = T const*;

    Array() = default;
    explicit Array(std::size_t count, T const& value = T()) { resize(count, value); }
    Array(std::initializer_list<T> values) { append(values.begin(), values.end()); }
    template <class It> Array(It first, It last) { append(first, last); }
    Array(Array const& other) { append(other.begin(), other.end()); }
    Array(Array&& other) noexcept { swap(other); }
    Array& operator=(Array other) noexcept
    {
        swap(other);
        return *this;
    }

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    T* data() { return data_.get(); }
    T const* data() const { return data_.get(); }
    T& operator[](std::size_t i) { return data_[i]; }
    T const& operator[](std::size_t i) const { return data_[i]; }
    T& back() { return data_[size_ - 1]; }
    T const& back() const { return data_[size_ - 1]; }
    iterator begin() { return data(); }
    iterator end() { return data() + size_; }
    const_iterator begin() const { return data(); }
    const_iterator end() const { return data() + size_; }

    void clear() { size_ = 0; }
    void reserve(std::size_t count)
    {
        if (count <= capacity_) return;
        std::unique_ptr<T[]> grown(new T[count]);
        std::move(begin(), end(), grown.get());
        data_ = std::move(grown);
        capacity_ = count;
    }
    void resize(std::size_t count, T const& value = T())
    {
        const T copy = value;  // `value` may lie in this array
        reserve(count);
        if (count > size_) std::fill(data() + size_, data() + count, copy);
        size_ = count;
    }
    void push_back(T const& value)
    {
        T copy = value;
        if (size_ == capacity_) reserve(capacity_ ? 2 * capacity_ : 8);
        data_[size_++] = std::move(copy);
    }
    template <class It> void append(It first, It last)
    {
        reserve(size_ + static_cast<std::size_t>(std::distance(first, last)));
        for (; first != last; ++first) data_[size_++] = *first;
    }
    void swap(Array& other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }
    friend bool operator==(Array const& a, Array const& b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

private:
    std::unique_ptr<T[]> data_;
    std::size_t size_ = 0, capacity_ = 0;
};

}  // namespace Corvid
