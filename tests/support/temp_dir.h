#ifndef ORN_TEST_TEMP_DIR_H
#define ORN_TEST_TEMP_DIR_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

#include <stdlib.h>

namespace orn_test {

/// A directory of its own for one test, below the system's directory for temporary files. It goes with
/// everything in it at the end of the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "orn-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()))
            m_path = pattern;
        else
            ADD_FAILURE() << "cannot make a directory from " << pattern;
    }

    ~TempDir() {
        std::error_code ignored; // a destructor has no one to tell
        if (!m_path.empty())
            std::filesystem::remove_all(m_path, ignored);
    }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }

    /// The path of `name` in the directory, whether it is there or not.
    std::string path(std::string_view name) const { return m_path + '/' + std::string(name); }

    /// Makes the file `name`, replacing what was there; returns its path.
    std::string write(std::string_view name, std::string_view contents) const {
        const std::string file = path(name);
        std::ofstream stream(file, std::ios::binary | std::ios::trunc);
        stream.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        stream.close();
        EXPECT_TRUE(stream) << "cannot write " << file;
        return file;
    }

    /// Makes the directory `name` and those above it; returns its path.
    std::string makeDirectory(std::string_view name) const {
        const std::string directory = path(name);
        std::filesystem::create_directories(directory);
        return directory;
    }

    static std::string contents(const std::string& file) {
        std::ifstream stream(file, std::ios::binary);
        EXPECT_TRUE(stream) << "cannot read " << file;
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

private:
    std::string m_path;
};

} // namespace orn_test

#endif // ORN_TEST_TEMP_DIR_H
