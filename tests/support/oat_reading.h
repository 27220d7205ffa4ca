// Reads a container in memory, without the ELF file around it.
#ifndef ORN_TEST_OAT_READING_H
#define ORN_TEST_OAT_READING_H

#include "orn_address.h"
#include "orn_buffer.h"
#include "orn_fflelf.h"
#include "orn_oat.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/oat_assembler.h"
#include "support/recording_sink.h"

#include <cstring>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

/// Where containers lie in tests: pseudo addresses of "oatdata".
constexpr uint64_t oatDataAddress = 0x70000000;

/// One line as the line table has it.
struct OatRow {
    std::string file;
    unsigned line;
    uint64_t address;
    uint64_t size;

    friend bool operator==(const OatRow&, const OatRow&) = default;
    friend std::ostream& operator<<(std::ostream& out, const OatRow& row) {
        return out << row.file << ':' << row.line << " at 0x" << std::hex << row.address << '+' << std::dec
                   << row.size;
    }
};

/// A loader over the bytes, with a sink that keeps what it gets and a line resolver.
class OatReading {
public:
    explicit OatReading(const OatAssembler& oat) : OatReading(oat.build(), oat.executableOffset()) {}
    OatReading(const std::vector<uint8_t>& bytes, uint64_t executableOffset)
        : OatReading(bytes, executableOffset,
                     new ORN_3_30::ElfFileLoader(new MemoryImage(ElfAssembler().build()))) {}
    /// With a format loader that may serve many readings.
    OatReading(const std::vector<uint8_t>& bytes, uint64_t executableOffset,
               ORN_3_30::SymMgrObjectPtr<ORN_3_30::ElfFileLoader> formatLoader)
        : format(std::move(formatLoader)), buffer(new ORN_3_30::ByteBuffer(bytes.size())) {
        if (!bytes.empty())
            std::memcpy(buffer->data(), bytes.data(), bytes.size());
        using ORN_3_30::Address;
        loader = new ORN_3_30::OATDebugInfoLoader(
            format, "/module.oat", nullptr, buffer, new Address(format, oatDataAddress, nullptr),
            new Address(format, oatDataAddress + executableOffset, nullptr));
        resolver = dynamic_cast<ORN_3_30::OATSrcLineResolver*>(loader->getLineResolver(nullptr, nullptr));
    }

    ORN_3_30::status_t load(ORN_3_30::LoadFilter* filter = nullptr) {
        return loader->loadSymbols(&sink, filter, ORN_3_30::symbol_kind_all, resolver);
    }

    /// All rows, by file id, address, line.
    std::vector<OatRow> rows() {
        std::vector<OatRow> rows;
        ORN_3_30::SymMgrObjectPtr<ORN_3_30::IIterator<ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISourceLine>>>
            lines;
        resolver->lineTable()->sourceLinesInRange(lines, 0, ~0U, 0, ~0ULL);
        while (auto line = lines->current()) {
            ORN_3_30::SymMgrObjectPtr<ORN_3_30::IAddress> address;
            line->address(address);
            auto* location = line->location();
            rows.push_back({location->file() ? location->file()->name() : "??", location->line(),
                            address->pseudoAddr(), line->size()});
            if (!lines->next())
                break;
        }
        return rows;
    }

    ORN_3_30::SymMgrObjectPtr<ORN_3_30::ElfFileLoader> format;
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::IBuffer> buffer;
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::OATDebugInfoLoader> loader;
    ORN_3_30::OATSrcLineResolver* resolver = nullptr;
    RecordingSink sink;
};

} // namespace orn_test

#endif
