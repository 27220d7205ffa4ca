// The PE format as it lies in a file: headers, section table, export and debug directories, and the CLR
// header of managed modules, by their published names. Everything is little-endian, and so is the host.
#ifndef ORN_PE_H
#define ORN_PE_H

#include <cstdint>

namespace ORN_3_30 {

// NOLINTBEGIN(readability-identifier-naming): the published names

constexpr std::uint16_t IMAGE_DOS_SIGNATURE = 0x5A4D; ///< "MZ"
constexpr std::uint32_t IMAGE_NT_SIGNATURE = 0x4550;  ///< "PE" and two zero bytes

constexpr std::uint16_t IMAGE_FILE_MACHINE_I386 = 0x014C;
constexpr std::uint16_t IMAGE_FILE_MACHINE_ARM = 0x01C0;
constexpr std::uint16_t IMAGE_FILE_MACHINE_THUMB = 0x01C2;
constexpr std::uint16_t IMAGE_FILE_MACHINE_IA64 = 0x0200;
constexpr std::uint16_t IMAGE_FILE_MACHINE_AMD64 = 0x8664;

constexpr std::uint16_t IMAGE_NT_OPTIONAL_HDR32_MAGIC = 0x010B;
constexpr std::uint16_t IMAGE_NT_OPTIONAL_HDR64_MAGIC = 0x020B;

constexpr unsigned IMAGE_DIRECTORY_ENTRY_EXPORT = 0;
constexpr unsigned IMAGE_DIRECTORY_ENTRY_DEBUG = 6;
constexpr unsigned IMAGE_DIRECTORY_ENTRY_GLOBALPTR = 8;
constexpr unsigned IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR = 14;
constexpr unsigned IMAGE_NUMBEROF_DIRECTORY_ENTRIES = 16;

constexpr std::uint32_t IMAGE_SCN_CNT_CODE = 0x00000020;

constexpr std::uint32_t IMAGE_DEBUG_TYPE_COFF = 1;
constexpr std::uint32_t IMAGE_DEBUG_TYPE_CODEVIEW = 2;

constexpr unsigned IMAGE_SIZEOF_SHORT_NAME = 8;
constexpr unsigned IMAGE_SIZEOF_SYMBOL = 18; ///< one record of the COFF symbol table

struct IMAGE_DOS_HEADER {
    std::uint16_t e_magic;
    std::uint16_t e_ofRealMode[29]; ///< what only the loader of another age reads
    std::uint32_t e_lfanew;         ///< file offset of the headers
};
static_assert(sizeof(IMAGE_DOS_HEADER) == 64);

struct IMAGE_FILE_HEADER {
    std::uint16_t Machine;
    std::uint16_t NumberOfSections;
    std::uint32_t TimeDateStamp;
    std::uint32_t PointerToSymbolTable;
    std::uint32_t NumberOfSymbols;
    std::uint16_t SizeOfOptionalHeader;
    std::uint16_t Characteristics;
};
static_assert(sizeof(IMAGE_FILE_HEADER) == 20);

struct IMAGE_DATA_DIRECTORY {
    std::uint32_t VirtualAddress;
    std::uint32_t Size;
};

struct IMAGE_OPTIONAL_HEADER32 {
    std::uint16_t Magic;
    std::uint8_t MajorLinkerVersion;
    std::uint8_t MinorLinkerVersion;
    std::uint32_t SizeOfCode;
    std::uint32_t SizeOfInitializedData;
    std::uint32_t SizeOfUninitializedData;
    std::uint32_t AddressOfEntryPoint;
    std::uint32_t BaseOfCode;
    std::uint32_t BaseOfData;
    std::uint32_t ImageBase;
    std::uint32_t SectionAlignment;
    std::uint32_t FileAlignment;
    std::uint16_t MajorOperatingSystemVersion;
    std::uint16_t MinorOperatingSystemVersion;
    std::uint16_t MajorImageVersion;
    std::uint16_t MinorImageVersion;
    std::uint16_t MajorSubsystemVersion;
    std::uint16_t MinorSubsystemVersion;
    std::uint32_t Win32VersionValue;
    std::uint32_t SizeOfImage;
    std::uint32_t SizeOfHeaders;
    std::uint32_t CheckSum;
    std::uint16_t Subsystem;
    std::uint16_t DllCharacteristics;
    std::uint32_t SizeOfStackReserve;
    std::uint32_t SizeOfStackCommit;
    std::uint32_t SizeOfHeapReserve;
    std::uint32_t SizeOfHeapCommit;
    std::uint32_t LoaderFlags;
    std::uint32_t NumberOfRvaAndSizes;
    IMAGE_DATA_DIRECTORY DataDirectory[IMAGE_NUMBEROF_DIRECTORY_ENTRIES];
};

struct IMAGE_OPTIONAL_HEADER64 {
    std::uint16_t Magic;
    std::uint8_t MajorLinkerVersion;
    std::uint8_t MinorLinkerVersion;
    std::uint32_t SizeOfCode;
    std::uint32_t SizeOfInitializedData;
    std::uint32_t SizeOfUninitializedData;
    std::uint32_t AddressOfEntryPoint;
    std::uint32_t BaseOfCode;
    std::uint64_t ImageBase;
    std::uint32_t SectionAlignment;
    std::uint32_t FileAlignment;
    std::uint16_t MajorOperatingSystemVersion;
    std::uint16_t MinorOperatingSystemVersion;
    std::uint16_t MajorImageVersion;
    std::uint16_t MinorImageVersion;
    std::uint16_t MajorSubsystemVersion;
    std::uint16_t MinorSubsystemVersion;
    std::uint32_t Win32VersionValue;
    std::uint32_t SizeOfImage;
    std::uint32_t SizeOfHeaders;
    std::uint32_t CheckSum;
    std::uint16_t Subsystem;
    std::uint16_t DllCharacteristics;
    std::uint64_t SizeOfStackReserve;
    std::uint64_t SizeOfStackCommit;
    std::uint64_t SizeOfHeapReserve;
    std::uint64_t SizeOfHeapCommit;
    std::uint32_t LoaderFlags;
    std::uint32_t NumberOfRvaAndSizes;
    IMAGE_DATA_DIRECTORY DataDirectory[IMAGE_NUMBEROF_DIRECTORY_ENTRIES];
};

struct IMAGE_NT_HEADERS32 {
    std::uint32_t Signature;
    IMAGE_FILE_HEADER FileHeader;
    IMAGE_OPTIONAL_HEADER32 OptionalHeader;
};
static_assert(sizeof(IMAGE_NT_HEADERS32) == 248);

struct IMAGE_NT_HEADERS64 {
    std::uint32_t Signature;
    IMAGE_FILE_HEADER FileHeader;
    IMAGE_OPTIONAL_HEADER64 OptionalHeader;
};
static_assert(sizeof(IMAGE_NT_HEADERS64) == 264);

struct IMAGE_SECTION_HEADER {
    char Name[IMAGE_SIZEOF_SHORT_NAME]; ///< without a NUL if it is that long
    std::uint32_t VirtualSize;
    std::uint32_t VirtualAddress;
    std::uint32_t SizeOfRawData;
    std::uint32_t PointerToRawData;
    std::uint32_t PointerToRelocations;
    std::uint32_t PointerToLinenumbers;
    std::uint16_t NumberOfRelocations;
    std::uint16_t NumberOfLinenumbers;
    std::uint32_t Characteristics;
};
static_assert(sizeof(IMAGE_SECTION_HEADER) == 40);

struct IMAGE_EXPORT_DIRECTORY {
    std::uint32_t Characteristics;
    std::uint32_t TimeDateStamp;
    std::uint16_t MajorVersion;
    std::uint16_t MinorVersion;
    std::uint32_t Name;
    std::uint32_t Base; ///< ordinal of the first function
    std::uint32_t NumberOfFunctions;
    std::uint32_t NumberOfNames;
    std::uint32_t AddressOfFunctions;
    std::uint32_t AddressOfNames;
    std::uint32_t AddressOfNameOrdinals;
};
static_assert(sizeof(IMAGE_EXPORT_DIRECTORY) == 40);

struct IMAGE_DEBUG_DIRECTORY {
    std::uint32_t Characteristics;
    std::uint32_t TimeDateStamp;
    std::uint16_t MajorVersion;
    std::uint16_t MinorVersion;
    std::uint32_t Type;
    std::uint32_t SizeOfData;
    std::uint32_t AddressOfRawData;
    std::uint32_t PointerToRawData;
};
static_assert(sizeof(IMAGE_DEBUG_DIRECTORY) == 28);

struct IMAGE_COFF_SYMBOLS_HEADER {
    std::uint32_t NumberOfSymbols;
    std::uint32_t LvaToFirstSymbol;
    std::uint32_t NumberOfLinenumbers;
    std::uint32_t LvaToFirstLinenumber;
    std::uint32_t RvaToFirstByteOfCode;
    std::uint32_t RvaToLastByteOfCode;
    std::uint32_t RvaToFirstByteOfData;
    std::uint32_t RvaToLastByteOfData;
};
static_assert(sizeof(IMAGE_COFF_SYMBOLS_HEADER) == 32);

struct IMAGE_COR20_HEADER {
    std::uint32_t cb;
    std::uint16_t MajorRuntimeVersion;
    std::uint16_t MinorRuntimeVersion;
    IMAGE_DATA_DIRECTORY MetaData;
    std::uint32_t Flags;
    std::uint32_t EntryPointToken;
    IMAGE_DATA_DIRECTORY Resources;
    IMAGE_DATA_DIRECTORY StrongNameSignature;
    IMAGE_DATA_DIRECTORY CodeManagerTable;
    IMAGE_DATA_DIRECTORY VTableFixups;
    IMAGE_DATA_DIRECTORY ExportAddressTableJumps;
    IMAGE_DATA_DIRECTORY ManagedNativeHeader;
};
static_assert(sizeof(IMAGE_COR20_HEADER) == 72);

/// "RTR" and a zero byte: the first field of the header that ManagedNativeHeader leads to.
constexpr std::uint32_t READYTORUN_SIGNATURE = 0x00525452;

// NOLINTEND(readability-identifier-naming)

/// Whether the bytes that the section has in the file hold `rva`. The end is a sum of 64 bits here: a section
/// that reaches past the last address does not wrap into an empty one.
inline bool fileBytesHold(const IMAGE_SECTION_HEADER& section, std::uint32_t rva) noexcept {
    return rva >= section.VirtualAddress && rva - section.VirtualAddress < section.SizeOfRawData;
}

} // namespace ORN_3_30

#endif
