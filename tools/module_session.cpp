// Loads the module of a verb and says what is wrong if it cannot.

#include "module_session.h"

#include "names.h"
#include "output.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace orn_tool {

using ORN_3_30::arch_t;
using ORN_3_30::IFileFormatLoader;
using ORN_3_30::IModuleImage;
using ORN_3_30::isFailure;
using ORN_3_30::ISymbolManager;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using ORN_3_30::toUString;
using enum ORN_3_30::arch_t;
using enum ORN_3_30::exec_format_t;
using enum ORN_3_30::status_t;

namespace {

std::string adviceForUnopened(const std::string& path) {
    struct stat info = {};
    if (path.empty() || stat(path.c_str(), &info) != 0) {
        if (errno == EACCES)
            return "a directory on the way may not be entered; ask for the rights";
        return "there is no such file; check the path";
    }
    if (S_ISDIR(info.st_mode))
        return "this is a directory; name a file in it";
    if (!S_ISREG(info.st_mode))
        return "this is no regular file; copy what it gives into one";
    if (access(path.c_str(), R_OK) != 0)
        return "the file may not be read; ask for the rights";
    return "the file is there and may be read; try again";
}

std::string adviceFor(const std::string& path, status_t status) {
    switch (status) {
    case status_CantOpenFile:
    case status_CantReadFile:
    case status_FileNotExist:
    case status_NotFound:
    case status_EmptyFileName:
    case status_InvalidArg:
        return adviceForUnopened(path);
    case status_UnknownFileFormat:
    case status_BadFileFormat:
    case status_NoSectionData:
        return "the file is no program, library or other module that orn reads, or it is damaged; "
               "see what it is with 'file' and fetch or build it again";
    case status_BadDebugInfo:
        return "the debug information is damaged; build the module or its symbol file again";
    case status_OutOfMemory:
        return "free memory or raise the limit (ulimit -v) and try again";
    case status_FileChanged:
        return "the file changed while it was read; try again";
    case status_NotImpl:
    case status_NotSupported:
    case status_UnsupportedFormatVersion:
    case status_UnsupportedDebugInfoFormat:
        return "this kind of module is not supported yet";
    default:
        return "no more is known; check the file with readelf, objdump or file";
    }
}

} // namespace

bool ModuleSession::load() {
    status_t status = ISymbolManager::create(m_manager);
    if (!isFailure(status)) {
        DebugFileSearch resolver(m_choice.debugDirectories, m_candidates);
        status = m_manager->loadSymbolsFromModule(path().c_str(), &resolver, m_bank, architecture(), false,
                                                  m_choice.kernel.c_str());
    }
    if (!isFailure(status) && !m_bank)
        status = status_Fail;
    if (isFailure(status))
        reportFailure(path(), status);
    return !isFailure(status);
}

status_t ModuleSession::openFormat(SymMgrObjectPtr<IFileFormatLoader>& loader) const {
    const SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path().c_str(), architecture(), false);
    return IFileFormatLoader::create(loader, image, m_choice.kernel.c_str());
}

void ModuleSession::askForKernel() const {
    if (m_bank->execFileFormat() == exec_format_gpu && m_choice.kernel.empty())
        printError("'" + printable(path()) + "' holds kernels of a GPU: name one with --kernel, and the " +
                   "architecture that it was made for with --arch, to see its source lines");
}

arch_t ModuleSession::architecture() const {
    return m_choice.architecture.empty() ? arch_unknown : architectureFor(m_choice.architecture);
}

std::size_t ModuleSession::addressWidth() const {
    return hexText(m_bank->preferredLoadAddress() + m_bank->imageSize()).size();
}

void printError(const std::string& line) {
    Output error(STDERR_FILENO);
    error.put("orn: ").put(line).put('\n');
    error.flush();
}

int finish(Output& output) {
    output.flush();
    if (!output.hasFailed())
        return exit_Done;
    printError("cannot write the answers to the end; is there room where they go?");
    return exit_NotLoaded;
}

void reportFailure(const std::string& path, status_t status) {
    printError("cannot load '" + printable(path) + "': " + toUString(status) + ": " +
               adviceFor(path, status));
}

std::string unreadVersionText() {
    return "the debug information is of a version that is not read; build with -gdwarf-4";
}

void warnAboutSymbols(const std::string& path, status_t status) {
    const std::string problem = "not all symbols of '" + printable(path) + "' could be read: ";
    if (status == status_UnsupportedFormatVersion)
        printError(problem + unreadVersionText());
    else
        printError(problem + toUString(status) +
                   ": answers may be missing; check the file with readelf or objdump");
}

} // namespace orn_tool
