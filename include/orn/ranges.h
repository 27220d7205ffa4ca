// Lists of intervals that a client hands in.
#ifndef ORN_RANGES_H
#define ORN_RANGES_H

#include "orn/export.h"

#include <utility>
#include <vector>

namespace ORN_3_30 {

/// A list of intervals, as pairs of begin and size. In symbolByRanges the begins are RVAs.
class IRanges {
public:
    /// Gives interval number `index`; false, with the outputs untouched, if there is none.
    virtual bool getRange(unsigned long index, unsigned long long& begin, unsigned long long& size) const = 0;
    virtual unsigned long getCount() const = 0;

protected:
    ~IRanges() = default;
};

/// Shows a vector of pairs (begin, end) as IRanges. The vector is borrowed and may be null: an empty list.
class ORN_API RangesAdapter : public IRanges {
public:
    using Vector = std::vector<std::pair<unsigned long long, unsigned long long>>;

    explicit RangesAdapter(const Vector* ranges) : m_ranges(ranges) {}

    bool getRange(unsigned long index, unsigned long long& begin, unsigned long long& size) const override;
    unsigned long getCount() const override;

private:
    const Vector* m_ranges;
};

} // namespace ORN_3_30

#endif
