// One section of optimisation reports.

#include "fuzz_targets.h"
#include "orn_buffer.h"
#include "orn_optreportreader.h"

#include <cstring>

namespace orn_fuzz {

using namespace ORN_3_30;

void optreport(const std::uint8_t* data, std::size_t size) {
    const SymMgrObjectPtr<IBuffer> buffer(new ByteBuffer(size));
    if (!buffer->data())
        return;
    if (size != 0)
        std::memcpy(buffer->data(), data, size);
    const SymMgrObjectPtr<OptReportReader> reader(new OptReportReader(buffer, 0x1000));
    reader->reset();
    while (IOptReportEntry* entry = reader->current()) {
        unsigned long long textSize = 0;
        (void)entry->text(textSize);
        reader->next();
    }
}

} // namespace orn_fuzz
