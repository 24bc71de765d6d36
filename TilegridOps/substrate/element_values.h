#pragma once
#include "TilegridOps/host/math.h"

#include <limits>
#include <type_traits>

/// Arithmetic on element types as operators need it.
namespace tilegrid {

/// Whether values of T may be mixed: numbers with a fraction and what is made of them. Integers are counts, labels and
/// markers, of which a mean has no meaning.
template <class T>
inline constexpr bool canInterpolate = std::is_floating_point_v<typename Ostara::Math::ElementTraits<T>::Scalar>;

/// The integer nearest to zero's side of `value`; the type's ends beyond its range, 0 for NaN.
template <class T> T saturated(float value)
{
    if (value != value) return 0;
    // The upper limit of a wide integer rounds up to the next power of two as a float, hence >= and not >.
    if (value >= static_cast<float>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
    if (value <= static_cast<float>(std::numeric_limits<T>::lowest())) return std::numeric_limits<T>::lowest();
    return static_cast<T>(value);
}

/// The element with `value` in every component; integers saturate.
template <class T> T elementOf(float value)
{
    using Element = Ostara::Math::ElementTraits<T>;
    using Scalar = typename Element::Scalar;
    T element{};
    for (int c = 0; c < Element::components; ++c) {
        if constexpr (std::is_integral_v<Scalar>)
            Element::at(element, c) = saturated<Scalar>(value);
        else
            Element::at(element, c) = value;
    }
    return element;
}

/// From `low` (fraction 0) to `high` (fraction 1). The one form in which values are mixed along an axis, so that the same
/// place read in two ways gives the same bits.
template <class T> [[gnu::always_inline]] inline T mixed(T const& low, T const& high, float fraction) { return (high - low) * fraction + low; }

}  // namespace tilegrid
