// Whether the headers of the library keep to their floors.
#ifndef ORN_TESTS_LAYER_CHECK_H
#define ORN_TESTS_LAYER_CHECK_H

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace layers {

/// The include graph of include/orn and src/orn below one root, and the rules it has to keep. Every check
/// answers one line for each violation, in a fixed order, and none for a tree that keeps the rule.
class LayerCheck {
public:
    /// Reads the tree below `root` and its floor table src/orn/floors.txt.
    explicit LayerCheck(const std::filesystem::path& root);

    /// Files without a floor, and lines of the floor table that cannot be read or that stand for no file.
    std::vector<std::string> filesWithoutFloor() const;

    /// Headers that include a header of a higher floor.
    std::vector<std::string> upwardIncludes() const;

    /// Include cycles, each reported once.
    std::vector<std::string> cycles() const;

    /// Includes of public headers that are neither public headers nor headers of the standard library: a
    /// client compiles against include/orn alone.
    std::vector<std::string> foreignIncludesOfPublicHeaders() const;

    /// How many files and resolved includes were seen. A check that saw nothing proves nothing.
    std::size_t fileCount() const { return m_files.size(); }
    std::size_t includeCount() const;

private:
    struct Include {
        std::string text;   // as written, with its quotes or brackets
        std::string target; // the file it means, relative to the root; empty when it is not in this tree
    };

    struct File {
        int floor = unknownFloor;
        std::vector<Include> includes;
    };

    struct FloorEntry {
        std::string subject;
        int floor;
        int line;
    };

    static constexpr int unknownFloor = -1;

    void readFloors();
    void readFiles(const std::string& directory);
    void resolveIncludes();
    const FloorEntry* entryOf(const std::string& file) const;
    std::string resolve(const std::string& includer, const std::string& name, bool quoted) const;

    std::filesystem::path m_root;
    std::vector<FloorEntry> m_floors;
    std::vector<std::string> m_floorErrors;
    std::map<std::string, File> m_files; // by path relative to the root
};

} // namespace layers

#endif
