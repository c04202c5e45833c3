// Conversions that stay in range: a float beyond the integer's range becomes its
// nearest end, and not-a-number becomes 0. A plain cast would be undefined.
#ifndef NOX_INTERNAL_SATURATE_H
#define NOX_INTERNAL_SATURATE_H

#include <limits>

namespace nox
{

template <typename Integer>
Integer saturate(float value)
{
    using Limits = std::numeric_limits<Integer>;
    // The maximum rounds up to a power of two as a float, the first value that no
    // longer fits; the minimum is a power of two or 0 and exact.
    if (value >= static_cast<float>(Limits::max()))
        return Limits::max();
    if (value <= static_cast<float>(Limits::min()))
        return Limits::min();
    return value == value ? static_cast<Integer>(value) : Integer{0};
}

} // namespace nox

#endif
