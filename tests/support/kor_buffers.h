// Bytes of GPU debug files as the parsers take them.
#pragma once

#include "orn_buffer.h"
#include "orn_dilkor_parser.h"

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

namespace ORN_3_30 {

inline bool operator==(const KorTavLineEntry& a, const KorTavLineEntry& b) {
    return a.address == b.address && a.line == b.line && a.column == b.column && a.fileIndex == b.fileIndex;
}
inline std::ostream& operator<<(std::ostream& stream, const KorTavLineEntry& entry) {
    return stream << "{0x" << std::hex << entry.address << std::dec << ", " << entry.line << ", "
                  << entry.column << ", " << entry.fileIndex << "}";
}

namespace test {

/// In a block of exactly their size, so that a read behind them is found out.
inline SymMgrObjectPtr<IBuffer> bufferOf(const std::vector<std::uint8_t>& bytes) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(bytes.size());
    if (!bytes.empty())
        std::memcpy(buffer->data(), bytes.data(), bytes.size());
    return buffer;
}

inline std::string asText(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// A buffer whose memory was refused.
class RefusedBuffer : public SymMgrObject<IBuffer> {
public:
    RefusedBuffer() : SymMgrObject<IBuffer>(nullptr) {}
    unsigned long long size() override { return 0; }
    unsigned char* data() override { return nullptr; }
};

/// Keeps the pairs that it is told, in order.
class RecordingMapping : public SymMgrObject<IAddressMapping> {
public:
    RecordingMapping() : SymMgrObject<IAddressMapping>(nullptr) {}
    status_t convert(unsigned long long&, unsigned long long&) override { return status_Fail; }
    void addMapping(unsigned long long from, unsigned long long to) override { pairs.emplace_back(from, to); }

    std::vector<std::pair<unsigned long long, unsigned long long>> pairs;
};

} // namespace test
} // namespace ORN_3_30
