// Sums of numbers that come out of files. A sum that does not fit counts as too large; it never wraps into
// something small.
#ifndef ORN_FFL_ARITH_H
#define ORN_FFL_ARITH_H

namespace ORN_3_30::internal {

constexpr unsigned long long saturatingSum(unsigned long long a, unsigned long long b) noexcept {
    return b > ~0ULL - a ? ~0ULL : a + b;
}

/// Whether `size` bytes from `offset` lie inside `limit` bytes.
constexpr bool fitsInside(unsigned long long offset, unsigned long long size,
                          unsigned long long limit) noexcept {
    return offset <= limit && size <= limit - offset;
}

} // namespace ORN_3_30::internal

#endif
