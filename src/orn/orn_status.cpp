// Texts of the status codes. Clients and log messages print them; nothing in the library reads them back.

#include "orn/status.h"

#include "orn_log.h"

#include <ostream>

namespace ORN_3_30 {

// Quirk: every text but that of an unknown value carries a double quote at either end. Callers print and
// compare them so.
const char* toUString(status_t status) {
    switch (status) {
    case status_Ok:
        return "\"Operation succeeded\"";
    case status_False:
        return "\"Operation succeeded and return logical FALSE\"";
    case status_Fail:
        return "\"Unspecified error\"";
    case status_NotImpl:
        return "\"Not implemented\"";
    case status_OutOfMemory:
        return "\"Out of memory\"";
    case status_InvalidArg:
        return "\"One or more arguments are invalid\"";
    case status_NotSupported:
        return "\"Not supported\"";
    case status_InvalidPointer:
        return "\"Invalid pointer\"";
    case status_CantCreateFile:
        return "\"Can't create file\"";
    case status_CantDeleteFile:
        return "\"Can't delete file\"";
    case status_CantOpenFile:
        return "\"Can't open file\"";
    case status_CantCloseFile:
        return "\"Can't close file\"";
    case status_CantWriteFile:
        return "\"Can't write to file\"";
    case status_CantReadFile:
        return "\"Can't read from file\"";
    case status_BadFileFormat:
        return "\"File format is incorrect\"";
    case status_BadDebugInfo:
        return "\"Debug information is incorrect\"";
    case status_NoDebugInfo:
        return "\"There is no debug info of some type\"";
    case status_NoValidPdb:
        return "\"There is no valid .pdb file\"";
    case status_NoPdbReader:
        return "\"There is no pdb reader\"";
    case status_NotFound:
        return "\"Not found\"";
    case status_FileChanged:
        return "\"File was changed\"";
    case status_FileNotExist:
        return "\"File does not exist\"";
    case status_UnknownProperty:
        return "\"Unknown Property\"";
    case status_EmptyFileName:
        return "\"Empty file name\"";
    case status_NotInitialized:
        return "\"Internal object is not initialized properly\"";
    case status_UnknownFileFormat:
        return "\"Unknown file format\"";
    case status_UnsupportedFormatVersion:
        return "\"Unsupported version of file format\"";
    case status_UnsupportedDebugInfoFormat:
        return "\"Unsupported debug info format\"";
    case status_NoSectionData:
        return "\"Failed to get section data\"";
    }
    return "<Unknown status>";
}

std::ostream& operator<<(std::ostream& stream, status_t status) {
    return stream << toUString(status);
}

} // namespace ORN_3_30
