// Reads the #include lines of the library's own sources and holds them against the floors of the house. It
// reads text and knows no preprocessor: an include inside a false #if counts, which is what a rule on the
// shape of the tree wants.

#include "layer_check.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

namespace layers {

namespace fs = std::filesystem;

namespace {

const char* const publicDirectory = "include/orn";
const char* const implementationDirectory = "src/orn";
const char* const floorTable = "src/orn/floors.txt";

bool isSource(const fs::path& path) {
    return path.extension() == ".h" || path.extension() == ".cpp";
}

bool isHeader(const std::string& file) {
    return fs::path(file).extension() == ".h";
}

bool isPublic(const std::string& file) {
    return file.rfind(std::string(publicDirectory) + "/", 0) == 0;
}

/// True for "orn_scope" and "orn_scope_load" under "orn_scope", and for anything that begins so under
/// "orn_s*".
bool standsFor(const std::string& subject, const std::string& stem) {
    if (!subject.empty() && subject.back() == '*')
        return stem.compare(0, subject.size() - 1, subject, 0, subject.size() - 1) == 0;
    return stem == subject || stem.compare(0, subject.size() + 1, subject + "_") == 0;
}

/// The name that a line includes, with its quotes or brackets; empty for any other line.
std::string includedBy(const std::string& line) {
    std::istringstream in(line);
    char hash = 0;
    if (!(in >> hash) || hash != '#')
        return {};
    std::string rest;
    std::getline(in >> std::ws, rest);
    const std::string directive = "include";
    if (rest.compare(0, directive.size(), directive) != 0)
        return {};
    const std::size_t begin = rest.find_first_of("<\"");
    if (begin == std::string::npos)
        return {};
    const std::size_t end = rest.find(rest[begin] == '<' ? '>' : '"', begin + 1);
    return end == std::string::npos ? std::string() : rest.substr(begin, end - begin + 1);
}

/// Headers of the C++ standard library have neither a directory nor an extension. The locks of the public
/// interface are POSIX mutexes.
bool comesWithTheSystem(const std::string& text) {
    return text == "<pthread.h>" || (text.front() == '<' && text.find_first_of("./") == std::string::npos);
}

} // namespace

LayerCheck::LayerCheck(const fs::path& root) : m_root(root) {
    readFloors();
    readFiles(publicDirectory);
    readFiles(implementationDirectory);
    resolveIncludes();
}

void LayerCheck::readFloors() {
    std::ifstream in(m_root / floorTable);
    if (!in)
        m_floorErrors.push_back(std::string(floorTable) + " cannot be read");
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::istringstream words(line.substr(0, line.find('#')));
        FloorEntry entry{{}, unknownFloor, number};
        if (!(words >> entry.subject))
            continue;
        std::string rest;
        if (!(words >> entry.floor) || entry.floor < 0 || words >> rest)
            m_floorErrors.push_back(std::string(floorTable) + ":" + std::to_string(number) +
                                    ": not a subject and a floor");
        else
            m_floors.push_back(entry);
    }
}

void LayerCheck::readFiles(const std::string& directory) {
    if (!fs::is_directory(m_root / directory))
        return;
    for (const fs::directory_entry& found : fs::recursive_directory_iterator(m_root / directory)) {
        if (!found.is_regular_file() || !isSource(found.path()))
            continue;
        const std::string name = found.path().lexically_relative(m_root).generic_string();
        File& file = m_files[name];
        const FloorEntry* entry = entryOf(name);
        file.floor = isPublic(name) ? 0 : entry ? entry->floor : unknownFloor;
        std::ifstream in(found.path());
        std::string line;
        while (std::getline(in, line)) {
            const std::string included = includedBy(line);
            if (!included.empty())
                file.includes.push_back({included, {}});
        }
    }
}

void LayerCheck::resolveIncludes() {
    for (auto& [name, file] : m_files) {
        for (Include& include : file.includes) {
            const std::string inner = include.text.substr(1, include.text.size() - 2);
            include.target = resolve(name, inner, include.text.front() == '"');
        }
    }
}

const LayerCheck::FloorEntry* LayerCheck::entryOf(const std::string& file) const {
    const std::string stem = fs::path(file).stem().string();
    const FloorEntry* best = nullptr;
    for (const FloorEntry& entry : m_floors) {
        if (standsFor(entry.subject, stem) && (!best || entry.subject.size() > best->subject.size()))
            best = &entry;
    }
    return best;
}

/// In the order of a compiler: beside the including file, then along the include path.
std::string LayerCheck::resolve(const std::string& includer, const std::string& name, bool quoted) const {
    std::vector<fs::path> places;
    if (quoted)
        places.push_back(fs::path(includer).parent_path());
    for (const char* directory : {"include", implementationDirectory, publicDirectory, "src"})
        places.emplace_back(directory);
    for (const fs::path& place : places) {
        const std::string candidate = (place / name).lexically_normal().generic_string();
        if (m_files.count(candidate) != 0)
            return candidate;
    }
    return {};
}

std::vector<std::string> LayerCheck::filesWithoutFloor() const {
    std::vector<std::string> found = m_floorErrors;
    for (const auto& [name, file] : m_files) {
        if (file.floor == unknownFloor)
            found.push_back(name + " has no floor: add its subject to " + floorTable);
    }
    return found;
}

std::vector<std::string> LayerCheck::upwardIncludes() const {
    std::vector<std::string> found;
    for (const auto& [name, file] : m_files) {
        if (!isHeader(name) || file.floor == unknownFloor)
            continue;
        for (const Include& include : file.includes) {
            if (include.target.empty())
                continue;
            const int floor = m_files.at(include.target).floor;
            if (floor > file.floor)
                found.push_back(name + " (floor " + std::to_string(file.floor) + ") includes " +
                                include.target + " (floor " + std::to_string(floor) + ")");
        }
    }
    return found;
}

std::vector<std::string> LayerCheck::cycles() const {
    std::vector<std::string> found;
    std::set<std::string> done;
    std::vector<std::string> path;
    auto visit = [&](auto& self, const std::string& name) -> void {
        const auto onPath = std::find(path.begin(), path.end(), name);
        if (onPath != path.end()) {
            std::string text;
            for (auto step = onPath; step != path.end(); ++step)
                text += *step + " -> ";
            found.push_back(text + name);
            return;
        }
        if (done.count(name) != 0)
            return;
        path.push_back(name);
        for (const Include& include : m_files.at(name).includes) {
            if (!include.target.empty())
                self(self, include.target);
        }
        path.pop_back();
        done.insert(name);
    };
    for (const auto& entry : m_files)
        visit(visit, entry.first);
    return found;
}

std::vector<std::string> LayerCheck::foreignIncludesOfPublicHeaders() const {
    std::vector<std::string> found;
    for (const auto& [name, file] : m_files) {
        if (!isPublic(name))
            continue;
        for (const Include& include : file.includes) {
            const bool fits =
                include.target.empty() ? comesWithTheSystem(include.text) : isPublic(include.target);
            if (!fits)
                found.push_back(name + " includes " + include.text);
        }
    }
    return found;
}

std::size_t LayerCheck::includeCount() const {
    std::size_t count = 0;
    for (const auto& entry : m_files) {
        for (const Include& include : entry.second.includes)
            count += include.target.empty() ? 0 : 1;
    }
    return count;
}

} // namespace layers
