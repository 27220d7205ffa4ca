// Reader of the stream that tells which machine code became of a GPU kernel's virtual instructions.
#ifndef ORN_DILKOR_LUN_UTILS_ISA_H
#define ORN_DILKOR_LUN_UTILS_ISA_H

#include "orn/buffer.h"
#include "orn/object.h"
#include "orn/status.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace ORN_3_30 {

class ILunDbgParser : public ISymMgrObject {
public:
    virtual unsigned getNumberOfKernels() = 0;
    virtual status_t getKernelNames(std::vector<std::string>& out) = 0;
    /// Instructions and the offsets of their machine code, in the order of the stream; those without code are
    /// left out. `status_NotFound` for a kernel that the stream has not.
    virtual status_t getInstructionMap(const std::string& kernel,
                                       std::vector<std::pair<unsigned, unsigned>>& out) = 0;

protected:
    ~ILunDbgParser() = default;
};

/// Reads one kor ISA stream. The stream tells of variables and registers too: these are passed over, since
/// only the ends of each record say where the next one begins.
class LunDbgParser : public SymMgrObject<ILunDbgParser> {
public:
    /// Sets `out` on `status_Ok` alone.
    static status_t create(SymMgrObjectPtr<ILunDbgParser>& out, const SymMgrObjectPtr<IBuffer>& buffer);

    unsigned getNumberOfKernels() override { return static_cast<unsigned>(m_kernels.size()); }
    status_t getKernelNames(std::vector<std::string>& out) override;
    status_t getInstructionMap(const std::string& kernel,
                               std::vector<std::pair<unsigned, unsigned>>& out) override;

protected:
    using Cursor = const unsigned char*;

    explicit LunDbgParser(IBuffer* buffer);
    status_t load();

    // Each passes one piece of a record; false, with the reason logged, if it does not lie in the stream.
    bool skipName(Cursor& ptr) const;
    bool skipMiraIntervals(Cursor& ptr) const;
    bool skipKorIsaIntervals(Cursor& ptr) const;
    bool skipRegisters(Cursor& ptr) const;

private:
    bool fits(Cursor ptr, unsigned long long size) const {
        return static_cast<unsigned long long>(ptr - m_debugInfo->data()) + size <= m_debugInfo->size();
    }
    bool skip(Cursor& ptr, unsigned long long size, const char* expression) const;
    template <typename Number>
    bool read(Cursor& ptr, Number& out) const;
    template <typename Number>
    bool skipNumber(Cursor& ptr) const;

    bool readObject(Cursor& ptr);
    bool readKernelName(Cursor& ptr, std::string& kernel) const;
    bool skipInstructions(Cursor& ptr) const;
    bool skipVariables(Cursor& ptr) const;
    bool skipSubRoutines(Cursor& ptr) const;
    bool skipFrameSlots(Cursor& ptr) const;

    SymMgrObjectPtr<IBuffer> m_debugInfo;
    std::map<std::string, std::size_t> m_kernels; ///< offset of the count of the instruction map
};

} // namespace ORN_3_30

#endif
