// Bound on what one load of a container of compiled managed code can ask for.
#ifndef ORN_OAT_BUDGET_H
#define ORN_OAT_BUDGET_H

#include "orn_ffl_arith.h"

namespace ORN_3_30 {

/// Parts of a container may be named many times over: code, line programs and mapping tables by several
/// methods, for whoever writes these files stores equal ones once; strings by everybody. A damaged file can
/// name one large part by everything it has, so that the work, and the memory for names and lines, grows with
/// the square of the file. The budget grows with the file, so far above what sharing makes of a sound one
/// that only made-up files spend it.
class OatBudget {
public:
    static constexpr unsigned long long symbolCost = 256;
    static constexpr unsigned long long mappingEntryCost = 32;

    explicit OatBudget(unsigned long long fileSize)
        : m_left(fileSize > ~0ULL / costPerByte ? ~0ULL
                                                : internal::saturatingSum(fileSize * costPerByte, least)) {}

    /// Pays for something; false once more was asked for than there is.
    bool spend(unsigned long long cost) {
        const bool isThere = cost <= m_left;
        m_left = isThere ? m_left - cost : 0;
        return isThere;
    }

private:
    static constexpr unsigned long long costPerByte = 64;
    static constexpr unsigned long long least = 0x10000;

    unsigned long long m_left;
};

} // namespace ORN_3_30

#endif
