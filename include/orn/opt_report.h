// The compiler's optimisation reports.
#ifndef ORN_OPT_REPORT_H
#define ORN_OPT_REPORT_H

namespace ORN_3_30 {

/// One optimisation report. Borrowed from the bank.
class IOptReportEntry {
public:
    virtual unsigned short version() = 0;
    /// Pseudo address that the report is anchored at.
    virtual unsigned long long address() = 0;
    /// The report's bytes, not terminated; `size` receives their count.
    virtual const char* text(unsigned long long& size) = 0;

protected:
    ~IOptReportEntry() = default;
};

} // namespace ORN_3_30

#endif
