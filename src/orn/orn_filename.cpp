// Paths of either style, taken apart and put together as texts.
//
// Module identities, symbol file candidates and the file layer call this with whatever path a client or a
// file names, so no text is refused and nothing is assumed about its length or its bytes. Nothing here asks
// the file system: links are not followed, and case is never folded, as the text does not tell whether the
// volume it names would. The one outside fact is the current directory, which the file layer gives. Device
// paths ("\\?\", "\\.\") and alternate streams are left out on purpose and read as plain components.

#include "orn_filename.h"

#include "orn_file.h"
#include "orn_log.h"

#include <utility>
#include <vector>

namespace ORN_3_30 {

namespace {

// The texts of the components that a normalised path does without.
constexpr std::string_view thisDirectory = ".";
constexpr std::string_view parentDirectory = "..";

// Not isalpha(): a drive letter is a matter of the path's style and not of the process' locale.
bool isDriveLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool hasDriveLetter(const std::string& path) {
    return path.size() >= 2 && isDriveLetter(path[0]) && path[1] == ':';
}

constexpr std::size_t driveLetterLength = 2;

const IFilenameParser& hostParser() noexcept {
    return UnixFilenameParser::instance();
}

const IFilenameParser& foreignParser() noexcept {
    return WinFilenameParser::instance();
}

const IFilenameParser& detectParser(const std::string& text) {
    // A relative path is of no telling style and stays with the host. The host is asked first, so that
    // "//server/share" is a Unix path on Linux.
    if (!hostParser().isAbsolute(text) && foreignParser().isAbsolute(text))
        return foreignParser();
    return hostParser();
}

const IFilenameParser& parserOfStyle(path_style_t style, const std::string& text) {
    switch (style) {
    case pathStyle_Host:
        return hostParser();
    case pathStyle_Unix:
        return UnixFilenameParser::instance();
    case pathStyle_Windows:
        return WinFilenameParser::instance();
    case pathStyle_Detect:
        break;
    }
    return detectParser(text);
}

} // namespace

// FilenameParser

void FilenameParser::normalize(std::string& out, const std::string& path) const {
    std::string driveText, dir, name;
    split(path, &driveText, &dir, &name);
    unifySeparators(driveText);

    const bool rooted = !dir.empty() && isSeparator(dir.front());
    std::string directories;
    directories.reserve(dir.size());
    if (rooted)
        directories = separator();
    const std::size_t climbs = appendDirectories(directories, std::string_view(dir).substr(rooted ? 1 : 0));

    // Quirk: a file system takes the parent of the root for the root; here a path that climbs above its root
    // is no path, and the empty text is what tells the callers. A drive without a root ("C:..\x") may climb.
    if (rooted && climbs > 0) {
        out.clear();
        return;
    }
    compose(out, driveText, directories, name);
}

/// Writes the directories of `text` that are left once ".", ".." and empty ones are resolved, each with its
/// separator. Returns how many ".." found nothing to take away; they come first.
std::size_t FilenameParser::appendDirectories(std::string& out, std::string_view text) const {
    // From the end to the start, since a ".." takes away what stands before it.
    std::vector<std::string_view> kept;
    std::size_t climbs = 0;
    std::size_t end = text.size();
    while (end > 0) {
        std::size_t begin = end;
        while (begin > 0 && !isSeparator(text[begin - 1]))
            --begin;
        const std::string_view component = text.substr(begin, end - begin);
        end = begin > 0 ? begin - 1 : 0;

        if (component.empty() || component == thisDirectory)
            continue;
        if (component == parentDirectory)
            ++climbs;
        else if (climbs > 0)
            --climbs;
        else
            kept.push_back(component);
    }

    for (std::size_t i = 0; i < climbs; ++i)
        out.append(parentDirectory).append(separator());
    for (auto component = kept.rbegin(); component != kept.rend(); ++component)
        out.append(*component).append(separator());
    return climbs;
}

void FilenameParser::unifySeparators(std::string& text) const {
    for (char& c : text) {
        if (isSeparator(c))
            c = *separator();
    }
}

void FilenameParser::append(std::string& path, const std::string& name) const {
    if (name.empty())
        return;
    // Quirk: the empty path does not end with a separator, so it gets one as any other does, and the name
    // comes out at the root. Callers whose directory may be empty join the plain texts.
    const bool pathEnds = !path.empty() && isSeparator(path.back());
    const bool nameBegins = isSeparator(name.front());
    std::string joined;
    joined.reserve(path.size() + 1 + name.size());
    joined = path;
    if (!pathEnds && !nameBegins)
        joined += separator();
    joined.append(name, pathEnds && nameBegins ? 1 : 0);
    path = std::move(joined);
}

void FilenameParser::split(const std::string& path, std::string* drive, std::string* dir,
                           std::string* name) const {
    // The outputs are stored last: any of them may be the path itself.
    std::string driveText;
    this->drive(driveText, path);
    if (dir || name) {
        const std::string_view rest = std::string_view(path).substr(driveText.size());
        std::size_t nameBegin = rest.size();
        while (nameBegin > 0 && !isSeparator(rest[nameBegin - 1]))
            --nameBegin;
        std::string dirText(rest.substr(0, nameBegin));
        std::string nameText(rest.substr(nameBegin));
        if (dir)
            *dir = std::move(dirText);
        if (name)
            *name = std::move(nameText);
    }
    if (drive)
        *drive = std::move(driveText);
}

void FilenameParser::compose(std::string& out, const std::string& drive, const std::string& dir,
                             const std::string& name) const {
    std::string path = drive;
    join(path, dir);
    join(path, name);
    out = std::move(path);
}

/// As `append`, but a part in front of which nothing stands gets no separator.
void FilenameParser::join(std::string& path, const std::string& part) const {
    if (path.empty())
        path = part;
    else
        append(path, part);
}

void FilenameParser::normalizeBehind(std::string& out, const std::string& base,
                                     const std::string& path) const {
    if (base.empty()) {
        out.clear();
        return;
    }
    std::string joined = base;
    append(joined, path);
    normalize(out, joined);
}

// WinFilenameParser

const WinFilenameParser& WinFilenameParser::instance() noexcept {
    static constexpr WinFilenameParser parser{};
    return parser;
}

bool WinFilenameParser::isAbsolute(const std::string& path) const {
    return isNetworkPath(path) || hasDriveLetter(path);
}

bool WinFilenameParser::isNetworkPath(const std::string& path) const {
    return path.size() >= 3 && isSeparator(path[0]) && isSeparator(path[1]);
}

void WinFilenameParser::makeAbsolute(std::string& out, const std::string& path,
                                     const std::string& base) const {
    if (isAbsolute(path)) {
        normalize(out, path);
    } else if (!path.empty() && isSeparator(path.front()) && !base.empty()) {
        // Rooted, but on no drive in particular: of the base only its drive counts.
        std::string joined;
        drive(joined, base);
        joined += path;
        normalize(out, joined);
    } else {
        normalizeBehind(out, base, path);
    }
}

void WinFilenameParser::drive(std::string& out, const std::string& path) const {
    std::size_t length = 0;
    if (isNetworkPath(path))
        length = networkPartLength(path);
    else if (hasDriveLetter(path))
        length = driveLetterLength;
    out = path.substr(0, length);
}

/// The length of "\\server\share". The share belongs to it, since there is no climbing from one share to
/// another; without a share the server alone is the network part.
std::size_t WinFilenameParser::networkPartLength(const std::string& path) const {
    const auto componentEnd = [&](std::size_t begin) {
        while (begin < path.size() && !isSeparator(path[begin]))
            ++begin;
        return begin;
    };
    const std::size_t serverEnd = componentEnd(2);
    if (serverEnd == path.size())
        return serverEnd;
    const std::size_t shareBegin = serverEnd + 1;
    const std::size_t shareEnd = componentEnd(shareBegin);
    return shareEnd > shareBegin ? shareEnd : serverEnd;
}

// UnixFilenameParser

const UnixFilenameParser& UnixFilenameParser::instance() noexcept {
    static constexpr UnixFilenameParser parser{};
    return parser;
}

void UnixFilenameParser::makeAbsolute(std::string& out, const std::string& path,
                                      const std::string& base) const {
    if (isAbsolute(path))
        normalize(out, path);
    else
        normalizeBehind(out, base, path);
}

// FileName

FileName::FileName(const std::string& text, const IFilenameParser* parser, path_style_t style)
    : m_text(text), m_parser(parser ? parser : &parserOfStyle(style, text)), m_style(m_parser->style()) {}

// Free functions

void canonicalPath(std::string& out, const std::string& path, path_style_t style) {
    const FileName fileName(path, nullptr, style);
    if (fileName.isAbsolute()) {
        fileName.parser().normalize(out, fileName.text());
        return;
    }
    std::string base;
    currentDirectory(base); // empty if it is not known, and without a base there is no path
    fileName.parser().makeAbsolute(out, fileName.text(), base);
}

void baseName(std::string& out, const std::string& path) {
    FileName(path).split(nullptr, nullptr, &out);
}

void dirName(std::string& out, const std::string& path) {
    FileName(path).split(nullptr, &out, nullptr);
}

void driveName(std::string& out, const std::string& path) {
    FileName(path).split(&out, nullptr, nullptr);
}

void appendPath(std::string& out, const std::string& dir, const std::string& name) {
    // The whole of `dir` is a directory, whether it ends with a separator or not: nothing of it is taken for
    // the name and replaced.
    const FileName directory(dir);
    std::string joined = directory.text();
    directory.parser().append(joined, name);
    out = std::move(joined);
}

bool isAbsolutePath(const std::string& path) {
    return FileName(path).isAbsolute();
}

} // namespace ORN_3_30
