#ifndef ORN_FILENAME_IMPL_H
#define ORN_FILENAME_IMPL_H

#include "orn/filename.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ORN_3_30 {

/// The operations that do not depend on the style.
class FilenameParser : public IFilenameParser {
public:
    void normalize(std::string& out, const std::string& path) const override;
    void append(std::string& path, const std::string& name) const override;
    void split(const std::string& path, std::string* drive, std::string* dir,
               std::string* name) const override;
    void compose(std::string& out, const std::string& drive, const std::string& dir,
                 const std::string& name) const override;

protected:
    ~FilenameParser() = default;

    /// The canonical form of `base` with `path` behind it; "no path" without a base.
    void normalizeBehind(std::string& out, const std::string& base, const std::string& path) const;

private:
    std::size_t appendDirectories(std::string& out, std::string_view text) const;
    void unifySeparators(std::string& text) const;
    void join(std::string& path, const std::string& part) const;
};

class WinFilenameParser final : public FilenameParser {
public:
    static const WinFilenameParser& instance() noexcept;

    path_style_t style() const override { return pathStyle_Windows; }
    bool isAbsolute(const std::string& path) const override;
    bool isNetworkPath(const std::string& path) const override;
    void makeAbsolute(std::string& out, const std::string& path, const std::string& base) const override;
    bool isSeparator(char c) const override { return c == '/' || c == '\\'; }
    const char* separator() const override { return "\\"; }
    void drive(std::string& out, const std::string& path) const override;

private:
    std::size_t networkPartLength(const std::string& path) const;
};

class UnixFilenameParser final : public FilenameParser {
public:
    static const UnixFilenameParser& instance() noexcept;

    path_style_t style() const override { return pathStyle_Unix; }
    bool isAbsolute(const std::string& path) const override { return !path.empty() && path.front() == '/'; }
    bool isNetworkPath(const std::string&) const override { return false; }
    void makeAbsolute(std::string& out, const std::string& path, const std::string& base) const override;
    bool isSeparator(char c) const override { return c == '/'; }
    const char* separator() const override { return "/"; }
    void drive(std::string& out, const std::string&) const override { out.clear(); }
};

/// A path together with the parser of its style. The style is settled at construction: by `parser` if one
/// is given, else by `style`, else by the text.
class FileName {
public:
    explicit FileName(const std::string& text, const IFilenameParser* parser = nullptr,
                      path_style_t style = pathStyle_Detect);

    const std::string& text() const noexcept { return m_text; }
    const IFilenameParser& parser() const noexcept { return *m_parser; }

    /// The style of the parser taken, so never `pathStyle_Detect` or `pathStyle_Host`.
    path_style_t style() const noexcept { return m_style; }

    bool isAbsolute() const { return m_parser->isAbsolute(m_text); }
    void split(std::string* drive, std::string* dir, std::string* name) const {
        m_parser->split(m_text, drive, dir, name);
    }

    friend bool operator==(const FileName& a, const FileName& b) noexcept {
        return a.m_style == b.m_style && a.m_text == b.m_text;
    }

private:
    std::string m_text;
    const IFilenameParser* m_parser;
    path_style_t m_style;
};

/// The absolute, normalised form of `path`, a relative path being seen from the current directory (so the
/// empty path gives that directory). Empty, that is "no path", if the path climbs above its root or the
/// current directory is not known.
void canonicalPath(std::string& out, const std::string& path, path_style_t style = pathStyle_Detect);

/// The text behind the last separator.
void baseName(std::string& out, const std::string& path);

/// The text between drive and name with its final separator; a name appended as plain text makes a path.
void dirName(std::string& out, const std::string& path);

/// The drive or network part.
void driveName(std::string& out, const std::string& path);

/// `name` in the directory `dir`, joined in the style of `dir`.
void appendPath(std::string& out, const std::string& dir, const std::string& name);

bool isAbsolutePath(const std::string& path);

} // namespace ORN_3_30

#endif // ORN_FILENAME_IMPL_H
