// Lines from a file descriptor.
#ifndef ORN_TOOLS_LINE_READER_H
#define ORN_TOOLS_LINE_READER_H

#include <cstddef>
#include <functional>
#include <string_view>
#include <vector>

namespace orn_tool {

/// Reads lines of bounded length. It says when it is about to wait for input, which is the moment to send
/// what was answered so far: at the other end of a pipe somebody may hold the next line back until then.
class LineReader {
public:
    static constexpr std::size_t longestLine = 64 * 1024;

    LineReader(int descriptor, std::function<void()> beforeRead);

    /// The next line without its end, valid until the next call; false at the end of input. A longer line
    /// than `longestLine` comes cut to that length.
    bool next(std::string_view& line);

private:
    bool fill();
    bool takeLine(std::string_view& line);
    bool takeRest(std::string_view& line);

    int m_descriptor;
    std::function<void()> m_beforeRead;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    bool m_isInsideCutLine = false;
};

} // namespace orn_tool

#endif
