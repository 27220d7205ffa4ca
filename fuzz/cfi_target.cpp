// Call frame information: the bytes are a whole `.eh_frame`, once of each size of addresses.

#include "fuzz_targets.h"
#include "orn_dildwarf_cfi.h"
#include "orn_stackframecontext.h"

#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

class BorrowedSection : public SymMgrObject<ISectionData> {
public:
    BorrowedSection(const std::uint8_t* data, std::size_t size)
        : SymMgrObject<ISectionData>(nullptr), m_data(data), m_size(size) {}

    const unsigned char* getData() override { return m_data; }
    unsigned long long getSize() override { return m_size; }
    unsigned long long getSize(status_t& status) override {
        status = status_Ok;
        return m_size;
    }
    unsigned getIndex() override { return 0; }
    unsigned long long getBias() override { return 0; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
};

} // namespace

void cfi(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return;
    const SymMgrObjectPtr<ISectionData> section = new BorrowedSection(data, size);
    const SymMgrObjectPtr<IStackFrameContext> frame = new StackFrameContext;
    for (const std::uint8_t addressSize : {4, 8}) {
        const SymMgrObjectPtr<DWARFCallFrameInformation> frames =
            new DWARFCallFrameInformation(0x2000, addressSize, 0);
        if (!frames->parse(section))
            continue;
        unsigned long long address = 0;
        (void)frames->computeCfa(frame, 0, address);
        for (const auto& each : frames->fdes()) {
            (void)frames->computeCfa(frame, each->pcBegin() + 1, address);
            (void)frames->computeCfa(frame, each->pcEnd(), address);
        }
    }
}

} // namespace orn_fuzz
