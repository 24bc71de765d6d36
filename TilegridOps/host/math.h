#pragma once
#include "TilegridOps/host/export.h"

#include <cmath>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <ostream>

/// Vectors, matrices and boxes of the host. All are plain values, packed, trivially copyable.
/// They are public types, so that a template made for one of them can be public.
///
/// Comparison operators of vectors and matrices hold if they hold for every component (a partial order, as is usual for
/// bounds): `a < b` says that b lies above a in each component, so neither `a < b` nor `a >= b` may hold.
namespace Ostara::Math {

template <class T, int N> struct TILEGRID_API Vector;

template <class T> struct TILEGRID_API Vector<T, 2> {
    using Scalar = T;
    static constexpr int size = 2;
    T x{}, y{};
    constexpr Vector() = default;
    constexpr explicit Vector(T all) : x(all), y(all) {}
    constexpr Vector(T x_, T y_) : x(x_), y(y_) {}
    constexpr T& operator[](int i) { return i == 0 ? x : y; }
    constexpr T const& operator[](int i) const { return i == 0 ? x : y; }
};

template <class T> struct TILEGRID_API Vector<T, 3> {
    using Scalar = T;
    static constexpr int size = 3;
    T x{}, y{}, z{};
    constexpr Vector() = default;
    constexpr explicit Vector(T all) : x(all), y(all), z(all) {}
    constexpr Vector(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}
    template <class U> constexpr explicit Vector(Vector<U, 3> const& v) : x(T(v.x)), y(T(v.y)), z(T(v.z)) {}
    constexpr T& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    constexpr T const& operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }
};

template <class T> struct TILEGRID_API Vector<T, 4> {
    using Scalar = T;
    static constexpr int size = 4;
    T x{}, y{}, z{}, w{};
    constexpr Vector() = default;
    constexpr explicit Vector(T all) : x(all), y(all), z(all), w(all) {}
    constexpr Vector(T x_, T y_, T z_, T w_) : x(x_), y(y_), z(z_), w(w_) {}
    constexpr T& operator[](int i) { return i == 0 ? x : i == 1 ? y : i == 2 ? z : w; }
    constexpr T const& operator[](int i) const { return i == 0 ? x : i == 1 ? y : i == 2 ? z : w; }
};

/// `rows` x `columns`, row by row; component n of `operator[]` is element (n / columns, n % columns).
template <class T, int Rows, int Columns> struct TILEGRID_API Matrix {
    using Scalar = T;
    static constexpr int size = Rows * Columns;
    T m[size]{};
    constexpr Matrix() = default;
    constexpr explicit Matrix(T all)
    {
        for (T& v : m) v = all;
    }
    constexpr T& operator[](int n) { return m[n]; }
    constexpr T const& operator[](int n) const { return m[n]; }
    constexpr T& operator()(int row, int column) { return m[row * Columns + column]; }
    constexpr T const& operator()(int row, int column) const { return m[row * Columns + column]; }
};

using float2 = Vector<float, 2>;
using float3 = Vector<float, 3>;
using float4 = Vector<float, 4>;
using double3 = Vector<double, 3>;
using int3 = Vector<std::int32_t, 3>;
using float3x3 = Matrix<float, 3, 3>;
using float4x2 = Matrix<float, 4, 2>;
using float4x4 = Matrix<float, 4, 4>;

/// Number of components and scalar type of an element type; a plain number has one component.
template <class T> struct ElementTraits {
    using Scalar = T;
    static constexpr int components = 1;
    static constexpr T const& at(T const& v, int) { return v; }
    static constexpr T& at(T& v, int) { return v; }
};
template <class T> requires requires { T::size; typename T::Scalar; } struct ElementTraits<T> {
    using Scalar = typename T::Scalar;
    static constexpr int components = T::size;
    static constexpr Scalar const& at(T const& v, int i) { return v[i]; }
    static constexpr Scalar& at(T& v, int i) { return v[i]; }
};

/// True for the vectors and matrices of this header.
template <class T> concept Composite = requires { T::size; typename T::Scalar; };

template <Composite V, class F> constexpr V mapped(V v, F f)
{
    for (int i = 0; i < V::size; ++i) v[i] = f(v[i]);
    return v;
}
template <Composite V, class F> constexpr V combined(V a, V const& b, F f)
{
    for (int i = 0; i < V::size; ++i) a[i] = f(a[i], b[i]);
    return a;
}
template <Composite V, class F> constexpr bool allOf(V const& a, V const& b, F f)
{
    for (int i = 0; i < V::size; ++i)
        if (!f(a[i], b[i])) return false;
    return true;
}

template <Composite V> constexpr V operator+(V const& a, V const& b) { return combined(a, b, [](auto p, auto q) { return p + q; }); }
template <Composite V> constexpr V operator-(V const& a, V const& b) { return combined(a, b, [](auto p, auto q) { return p - q; }); }
template <Composite V> constexpr V operator-(V const& a) { return mapped(a, [](auto p) { return -p; }); }
template <Composite V> constexpr V operator*(typename V::Scalar s, V const& a) { return mapped(a, [s](auto p) { return s * p; }); }
template <Composite V> constexpr V operator*(V const& a, typename V::Scalar s) { return s * a; }
template <Composite V> constexpr V& operator+=(V& a, V const& b) { return a = a + b; }
template <Composite V> constexpr V& operator-=(V& a, V const& b) { return a = a - b; }
template <Composite V> constexpr bool operator==(V const& a, V const& b) { return allOf(a, b, [](auto p, auto q) { return p == q; }); }
template <Composite V> constexpr bool operator<(V const& a, V const& b) { return allOf(a, b, [](auto p, auto q) { return p < q; }); }
template <Composite V> constexpr bool operator>(V const& a, V const& b) { return b < a; }
template <Composite V> constexpr bool operator<=(V const& a, V const& b) { return allOf(a, b, [](auto p, auto q) { return p <= q; }); }
template <Composite V> constexpr bool operator>=(V const& a, V const& b) { return b <= a; }

template <Composite V> constexpr auto dot(V const& a, V const& b)
{
    typename V::Scalar sum{};
    for (int i = 0; i < V::size; ++i) sum += a[i] * b[i];
    return sum;
}
template <class T> constexpr Vector<T, 3> cross(Vector<T, 3> const& a, Vector<T, 3> const& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
template <Composite V> auto length(V const& a) { return std::sqrt(dot(a, a)); }

/// Text form: numbers as the stream prints them, components in parentheses.
template <Composite V> std::ostream& operator<<(std::ostream& out, V const& v)
{
    out << '(';
    for (int i = 0; i < V::size; ++i) out << (i ? ", " : "") << v[i];
    return out << ')';
}

/// Axis-aligned box. V: its corners' type, S: their scalar. Empty (min above max) until something is added.
template <class V, class S> struct bbox {
    V min{std::numeric_limits<S>::max()};
    V max{std::numeric_limits<S>::lowest()};
    constexpr bool empty() const { return !(min.x <= max.x && min.y <= max.y && min.z <= max.z); }
    constexpr void add(V const& p)
    {
        for (int i = 0; i < 3; ++i) {
            if (p[i] < min[i]) min[i] = p[i];
            if (p[i] > max[i]) max[i] = p[i];
        }
    }
    constexpr void add(bbox const& other)
    {
        for (int i = 0; i < 3; ++i) {
            if (other.min[i] < min[i]) min[i] = other.min[i];
            if (other.max[i] > max[i]) max[i] = other.max[i];
        }
    }
    constexpr bool operator==(bbox const& other) const { return min == other.min && max == other.max; }
};

}  // namespace Ostara::Math
