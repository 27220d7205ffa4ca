// A listing of a kernel's symbols. The first byte chooses the width of addresses and whether a bias is
// sought; the rest is the listing.

#include "fuzz_targets.h"
#include "orn_fflelf.h"
#include "orn_file.h"
#include "orn_moduleimage.h"
#include "orn_scope.h"
#include "orn_systemmap.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

/// A loader opens its listing by a path, and the end of the path tells it what the listing is.
class ListingFile {
public:
    ListingFile(const std::uint8_t* data, std::size_t size)
        : m_descriptor(::memfd_create("listing", MFD_CLOEXEC)) {
        while (size > 0) {
            const ssize_t written = ::write(m_descriptor, data, size);
            if (written <= 0)
                break;
            data += written;
            size -= static_cast<std::size_t>(written);
        }
    }
    ~ListingFile() { ::close(m_descriptor); }
    ListingFile(const ListingFile&) = delete;
    ListingFile& operator=(const ListingFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

/// A symbolic link whose name ends as that of a copied listing does.
class KallsymsLink {
public:
    explicit KallsymsLink(const std::string& target) {
        tempDirectory(m_path);
        m_path += "orn-fuzz-" + std::to_string(::getpid()) + "-kallsyms";
        (void)::unlink(m_path.c_str());
        m_isMade = ::symlink(target.c_str(), m_path.c_str()) == 0;
    }
    ~KallsymsLink() {
        if (m_isMade)
            (void)::unlink(m_path.c_str());
    }
    KallsymsLink(const KallsymsLink&) = delete;
    KallsymsLink& operator=(const KallsymsLink&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    bool m_isMade = false;
};

} // namespace

void systemmap(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return;
    const bool is64Bit = (*data & 1) != 0;
    const bool needsBias = (*data & 2) != 0;
    const ListingFile file(data + 1, size - 1);
    const KallsymsLink link(file.path());
    const std::string path = needsBias ? link.path() : file.path();
    const SymMgrObjectPtr<ISymbolFileToResolve> candidate(new SystemMap("/vmlinux", 0, nullptr, true));
    (void)candidate->resolve(path.c_str());
    // The made-up image has one segment for all of the kernel's addresses.
    const SymMgrObjectPtr<ElfFileLoader> module(
        new ElfFileLoader(new BogusELFImage("vmlinux", is64Bit ? arch_x86_64 : arch_ia32)));
    const SymMgrObjectPtr<IDebugInfoLoader> loader(new SystemMAPDebugInfoLoader(
        module, path.c_str(), module->getElfHelper(), module->getArch(), nullptr));
    GlobalScope scope(module, loader, nullptr);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    (void)scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_function);
    (void)scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    while (ranges && ranges->current() && ranges->next()) {
    }
}

} // namespace orn_fuzz
