// Byte sources of modules, and the choice among them: a plain file, a module embedded in a host program, a
// kernel with a compressed payload, a kernel of which no file exists. The manager makes an image for each
// load; format loaders read through it and never care which one it is. Nothing is inflated here.

#include "orn_moduleimage.h"

#include "orn_buffer.h"
#include "orn_elf.h"
#include "orn_ffl_arith.h"
#include "orn_ffl_create.h"
#include "orn_filename.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include <elf.h>

namespace ORN_3_30 {

namespace {

/// What a search that has found nothing holds.
constexpr unsigned long long noOffset = ~0ULL;

constexpr unsigned long long kernelMappingSize = 0x7FFFFFFF;

/// One loadable segment that has no bytes in any file and covers the kernel's mapping up to the top of the
/// address space, so that every kernel address falls into it.
Elf64_Phdr kernelSegment64() {
    Elf64_Phdr segment{};
    segment.p_type = PT_LOAD;
    segment.p_flags = PF_X;
    segment.p_offset = ~Elf64_Off{0};
    segment.p_vaddr = 0xFFFFFFFF80000000;
    segment.p_memsz = kernelMappingSize;
    return segment;
}

Elf32_Phdr kernelSegment32() {
    Elf32_Phdr segment{};
    segment.p_type = PT_LOAD;
    segment.p_offset = ~Elf32_Off{0};
    segment.p_vaddr = 0x80000000;
    segment.p_memsz = kernelMappingSize;
    segment.p_flags = PF_X;
    return segment;
}

template <typename Header>
Header kernelHeader(unsigned char elfClass, Elf64_Half machine, Elf64_Half segmentHeaderSize) {
    Header header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = elfClass;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_machine = machine;
    header.e_phoff = sizeof(Header);
    header.e_phentsize = segmentHeaderSize;
    header.e_phnum = 1;
    return header;
}

template <typename Header, typename Segment>
SymMgrObjectPtr<IBuffer> bufferOf(const Header& header, const Segment& segment) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(sizeof(header) + sizeof(segment));
    if (!buffer->data())
        throw std::bad_alloc();
    std::memcpy(buffer->data(), &header, sizeof(header));
    std::memcpy(buffer->data() + sizeof(header), &segment, sizeof(segment));
    return buffer;
}

SymMgrObjectPtr<IBuffer> madeUpKernelHeader(arch_t arch) {
    if (arch == arch_x86_64)
        return bufferOf(kernelHeader<Elf64_Ehdr>(ELFCLASS64, EM_X86_64, sizeof(Elf64_Phdr)),
                        kernelSegment64());
    return bufferOf(kernelHeader<Elf32_Ehdr>(ELFCLASS32, EM_386, sizeof(Elf32_Phdr)), kernelSegment32());
}

} // namespace

// --- FileImage

FileImage::FileImage(const char* path, unsigned long long fileOffset, arch_t arch)
    : SymMgrObject<IModuleImage>(nullptr), m_file(path), m_fileOffset(fileOffset), m_arch(arch) {}

unsigned long long FileImage::read(unsigned long long offset, unsigned long long size, void* buffer) {
    const unsigned long long position = internal::saturatingSum(offset, m_fileOffset);
    if (position > static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max()))
        return 0;
    ScopedLock guard(&m_positionLock);
    if (m_file.seek(static_cast<std::int64_t>(position)) < 0)
        return 0;
    return static_cast<unsigned long long>(std::max<std::int64_t>(m_file.read(size, buffer), 0));
}

unsigned long long FileImage::getSize() {
    const unsigned long long fileSize = m_file.size();
    return m_fileOffset < fileSize ? fileSize - m_fileOffset : 0;
}

// --- CompressedImage

CompressedImage::CompressedImage(const char* path, unsigned long long gzipOffset, unsigned long long limit)
    : SymMgrObject<IModuleImage>(nullptr),
      m_path(path),
      m_arch(arch_unknown),
      m_gzipOffset(gzipOffset),
      m_limit(limit) {}

unsigned long long CompressedImage::read(unsigned long long offset, unsigned long long size, void* buffer) {
    if (!internal::fitsInside(offset, size, m_limit))
        return 0;
    const SymMgrObjectPtr<IModuleImage> file = new FileImage(m_path.c_str(), 0, m_arch);
    return file->read(offset, size, buffer);
}

unsigned long long CompressedImage::getSize() {
    const SymMgrObjectPtr<IModuleImage> file = new FileImage(m_path.c_str(), 0, m_arch);
    return file->getSize();
}

// --- BogusELFImage

BogusELFImage::BogusELFImage(const char* path, arch_t arch)
    : SymMgrObject<IModuleImage>(nullptr), m_path(path), m_arch(arch) {
    if (m_arch == arch_unknown)
        m_arch = m_path.find("x86_64") != std::string::npos ? arch_x86_64 : arch_ia32;
    m_header = madeUpKernelHeader(m_arch);
}

unsigned long long BogusELFImage::read(unsigned long long offset, unsigned long long size, void* buffer) {
    if (!internal::fitsInside(offset, size, m_header->size()))
        return 0;
    std::memcpy(buffer, m_header->data() + offset, size);
    return size;
}

namespace {

/// Looks for a gzip stream near the start of each segment of a kernel file. All headers are seen, so the last
/// one with a stream decides where it begins, and the last one of all where the readable part ends.
class CompressImageFinder final : public ElfHelper::IProgramHeadersCallback {
public:
    explicit CompressImageFinder(SymMgrObjectPtr<IModuleImage> image) : m_image(std::move(image)) {}

    void operator()(const Elf64_Phdr& header, unsigned) override {
        char start[searchedBytes];
        const unsigned long long count = m_image->read(
            header.p_offset, std::min<unsigned long long>(header.p_filesz, searchedBytes), start);
        m_lastSegmentOffset = header.p_offset;
        // Quirk: the last place where the magic would fit is not looked at; with the magic's own three bytes,
        // or fewer, there is no place at all.
        if (count <= gzipMagic.size())
            return;
        const std::size_t position = std::string_view(start, count - 1).find(gzipMagic);
        if (position != std::string_view::npos)
            m_gzipOffset = header.p_offset + position;
    }

    bool hasStream() const { return m_gzipOffset != noOffset; }
    unsigned long long gzipOffset() const { return m_gzipOffset; }
    unsigned long long lastSegmentOffset() const { return m_lastSegmentOffset; }

private:
    static constexpr std::size_t searchedBytes = 8192;
    static constexpr std::string_view gzipMagic = "\x1F\x8B\x08"; ///< with the deflate method

    SymMgrObjectPtr<IModuleImage> m_image;
    unsigned long long m_gzipOffset = noOffset;
    unsigned long long m_lastSegmentOffset = noOffset;
};

/// A file that is a compressed kernel by its name. Without a payload it is useless for symbols, and a made-up
/// kernel takes its place: a kernel symbol map may do.
SymMgrObjectPtr<IModuleImage> makeCompressedKernelImage(const char* path, arch_t arch) {
    const SymMgrObjectPtr<IModuleImage> file = new FileImage(path, 0, arch_unknown);
    const SymMgrObjectPtr<ElfHelper> helper = new ElfHelper(file);
    CompressImageFinder finder(file);
    helper->walkRawProgramHeaders(finder);
    if (!finder.hasStream())
        return new BogusELFImage(path, arch);
    return new CompressedImage(path, finder.gzipOffset(), finder.lastSegmentOffset());
}

/// Null for everything that is read like any file, an unpacked kernel among it.
SymMgrObjectPtr<IModuleImage> makeKernelImage(const char* path, arch_t arch) {
    std::string name;
    baseName(name, path);
    if (!name.starts_with("vmlinu"))
        return nullptr;
    if (!fileExists(path))
        return new BogusELFImage(path, arch);
    if (name.starts_with("vmlinuz"))
        return makeCompressedKernelImage(path, arch);
    return nullptr;
}

bool isCoprocessor(arch_t arch) {
    return arch == arch_coprocessor_1 || arch == arch_coprocessor_2;
}

/// The module that `host` carries for a co-processor, or `host` itself; null if the host is not readable.
SymMgrObjectPtr<IModuleImage> makeOffloadImage(const char* path, SymMgrObjectPtr<IModuleImage> host,
                                               bool offload) {
    SymMgrObjectPtr<IFileFormatLoader> ffl;
    if (isFailure(internal::createFileFormatLoader(ffl, host, ""))) {
        ORN_LOG_WARNING(path << ", IModuleImage::create(): cannot create ffl");
        return nullptr;
    }
    if (!offload && isCoprocessor(ffl->getArch()))
        return host;
    const SymMgrObjectPtr<IModuleImage> embedded = createOffloadImage(ffl);
    return embedded ? embedded : host;
}

/// IModuleImage::create without trace and catch.
SymMgrObjectPtr<IModuleImage> makeImage(const char* path, arch_t arch, bool offload) {
    if (!path) {
        ORN_LOG_WARNING("IModuleImage::create: wrong parameter. binFileName should not be empty");
        return nullptr;
    }
    SymMgrObjectPtr<IModuleImage> image = makeKernelImage(path, arch);
    if (!image) {
        image = new FileImage(path, 0, arch);
        if (offload || isCoprocessor(arch)) {
            image = makeOffloadImage(path, image, offload);
            if (!image)
                return nullptr;
        }
    }
    if (!image) // no way leads here today; a further form of image may fail without a word of its own
        ORN_LOG_WARNING(path << ", IModuleImage::create(): cannot create module image");
    return image;
}

/// How an ELF file of 64-bit class, little-endian and current version begins.
constexpr std::string_view elf64Identification("\x7F"
                                               "ELF\x02\x01\x01",
                                               7);

} // namespace

SymMgrObjectPtr<IModuleImage> createOffloadImage(IFileFormatLoader* ffl) {
    if (!ffl) {
        ORN_LOG_WARNING("NULL pointer: ffl");
        return nullptr;
    }
    const char* name = ffl->getExecFormat() == exec_format_pe ? ".qtz bsd" : ".rodata";
    SymMgrObjectPtr<ISection> section;
    ffl->getSectionByName(section, name);
    if (!section) {
        ORN_LOG_WARNING(ffl->getPath() << "createOffloadImage: cannot get section  " << name);
        return nullptr;
    }
    SymMgrObjectPtr<IBuffer> buffer;
    if (isFailure(section->read(buffer)) || !buffer)
        return nullptr;
    if (buffer->size() <= elf64Identification.size()) {
        ORN_LOG_WARNING(ffl->getPath()
                        << "createOffloadImage: the section is too small for offload image, section name:"
                        << name);
        return nullptr;
    }
    // Quirk: the last place where the identification would fit is not looked at. The first hit is taken
    // without a further test.
    const std::string_view bytes(reinterpret_cast<const char*>(buffer->data()), buffer->size() - 1);
    const std::size_t position = bytes.find(elf64Identification);
    if (position == std::string_view::npos)
        return nullptr;
    return new FileImage(ffl->getPath(), internal::saturatingSum(position, section->getFileOffset()),
                         arch_coprocessor_2);
}

namespace internal {

SymMgrObjectPtr<IModuleImage> createModuleImage(const char* binFileName, arch_t arch, bool offload) {
    ORN_TRACE("create");
    return makeImage(binFileName, arch, offload);
}

} // namespace internal

SymMgrObjectPtr<IModuleImage> IModuleImage::create(const char* binFileName, arch_t arch, bool offload) {
    ORN_TRACE("create");
    try {
        return makeImage(binFileName, arch, offload);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
        return nullptr;
    }
}

} // namespace ORN_3_30
