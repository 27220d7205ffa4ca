// The one way in which an operation reports its outcome.
#ifndef ORN_STATUS_H
#define ORN_STATUS_H

#include "orn/export.h"

#include <cstdint>
#include <iosfwd>

namespace ORN_3_30 {

/// Outcome of an operation. Callers store and compare the numbers, so they never change; 0x10000013 is a
/// hole that stays. Every failure carries the bit 0x10000000: test it with isFailure(), never by comparing
/// with `status_Ok`, since `status_False` is a success whose logical answer is "no".
enum [[nodiscard]] status_t : std::uint32_t{status_Ok = 0x00000000,
                                            status_False = 0x00000001,
                                            status_Fail = 0x10000001,
                                            status_NotImpl = 0x10000002,
                                            status_OutOfMemory = 0x10000003,
                                            status_InvalidArg = 0x10000004,
                                            status_NotSupported = 0x10000005,
                                            status_InvalidPointer = 0x10000006,
                                            status_CantCreateFile = 0x10000007,
                                            status_CantDeleteFile = 0x10000008,
                                            status_CantOpenFile = 0x10000009,
                                            status_CantCloseFile = 0x1000000A,
                                            status_CantWriteFile = 0x1000000B,
                                            status_CantReadFile = 0x1000000C,
                                            status_BadFileFormat = 0x1000000D,
                                            status_BadDebugInfo = 0x1000000E,
                                            status_NoDebugInfo = 0x1000000F,
                                            status_NoValidPdb = 0x10000010,
                                            status_NoPdbReader = 0x10000011,
                                            status_NotFound = 0x10000012,
                                            status_FileChanged = 0x10000014,
                                            status_FileNotExist = 0x10000015,
                                            status_UnknownProperty = 0x10000016,
                                            status_EmptyFileName = 0x10000017,
                                            status_NotInitialized = 0x10000018,
                                            status_UnknownFileFormat = 0x10000019,
                                            status_UnsupportedFormatVersion = 0x1000001A,
                                            status_UnsupportedDebugInfoFormat = 0x1000001B,
                                            status_NoSectionData = 0x1000001C};

/// The bit that every failure carries and no success does.
inline constexpr std::uint32_t statusFailureBit = 0x10000000;

/// True if `status` is a failure. The only test of failure that the library uses.
constexpr bool isFailure(status_t status) noexcept {
    return (static_cast<std::uint32_t>(status) & statusFailureBit) != 0;
}

/// The static text of a status, never null. The texts carry a double quote at either end; a value outside
/// the table gives the bare text `<Unknown status>`.
ORN_API const char* toUString(status_t status);

/// Writes toUString(status), quotes included.
ORN_API std::ostream& operator<<(std::ostream& stream, status_t status);

} // namespace ORN_3_30

#endif
