#pragma once
#include <any>
#include <typeinfo>
#include <utility>

namespace Corvid {

/// A value of any copyable type, or nothing.
class Any {
public:
    Any() = default;
    template <class T> requires(!std::is_same_v<std::decay_t<T>, Any>) explicit Any(T&& value) : value_(std::forward<T>(value)) {}
    bool empty() const { return !value_.has_value(); }
    std::type_info const& type() const { return value_.type(); }
    /// The value, or null if it is of another type.
    template <class T> T const* get() const { return std::any_cast<T>(&value_); }
    template <class T> bool holds() const { return get<T>() != nullptr; }

private:
    std::any value_;
};

}  // namespace Corvid
