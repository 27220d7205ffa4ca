#ifndef ORN_FILENAME_H
#define ORN_FILENAME_H

#include <cstdint>
#include <string>

namespace ORN_3_30 {

/// The style in which a path is written. It goes with the path, not with the host: the path of a module's
/// debug file may be a Windows path on a Linux host.
enum path_style_t : std::int32_t {
    pathStyle_Detect = -1, ///< Told by the text: the host's style unless the text is absolute in the other.
    pathStyle_Host = 0,    ///< The host's default; the Unix style on Linux.
    pathStyle_Unix = 1,
    pathStyle_Windows = 2,
};

/// Takes paths of one style apart and puts them together. It works on the text alone and never asks the
/// file system. The parsers have no state, live as long as the process and may be used from any thread.
///
/// Every `out` may be the same string as an argument. None of the operations fails but `normalize`, and
/// with it `makeAbsolute`: they give the empty string, which means "no path".
class IFilenameParser {
public:
    /// `pathStyle_Unix` or `pathStyle_Windows`.
    virtual path_style_t style() const = 0;

    /// Whether `path` names the same file wherever the current directory is.
    virtual bool isAbsolute(const std::string& path) const = 0;

    /// Whether `path` begins with the name of another machine.
    virtual bool isNetworkPath(const std::string& path) const = 0;

    /// The canonical form of `path` seen from the directory `base`. An absolute path needs no base and is
    /// normalised only; any other path with an empty base gives the empty string.
    virtual void makeAbsolute(std::string& out, const std::string& path, const std::string& base) const = 0;

    /// The canonical form of an absolute path: "." and empty directories dropped, ".." resolved by the
    /// text (links are not followed), all separators alike. The last component is a name and stays, even
    /// if it is "." or "..". A path that climbs above its root gives the empty string.
    virtual void normalize(std::string& out, const std::string& path) const = 0;

    /// Appends `name` to the directory `path`, with one separator between them. An empty `name` changes
    /// nothing.
    virtual void append(std::string& path, const std::string& name) const = 0;

    /// Divides `path` into drive or network part, directory (with its final separator) and name, so that
    /// the three one after the other are `path` again. Each output may be null.
    virtual void split(const std::string& path, std::string* drive, std::string* dir,
                       std::string* name) const = 0;

    /// Joins the three parts that `split` gives, with exactly one separator where two of them meet. Empty
    /// parts are left out.
    virtual void compose(std::string& out, const std::string& drive, const std::string& dir,
                         const std::string& name) const = 0;

    virtual bool isSeparator(char c) const = 0;

    /// The separator that the style writes, as a text of one character.
    virtual const char* separator() const = 0;

    /// The drive ("C:") or network part ("\\server\share") at the start of `path`; empty if it has none.
    virtual void drive(std::string& out, const std::string& path) const = 0;

protected:
    // Not virtual: parsers are static objects, and the table of operations holds no destructor.
    ~IFilenameParser() = default;
};

} // namespace ORN_3_30

#endif // ORN_FILENAME_H
