// Lines from a file descriptor. The C++ streams are no help here: they do not tell whether the next line is
// in memory already or will have to be waited for.

#include "line_reader.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace orn_tool {

LineReader::LineReader(int descriptor, std::function<void()> beforeRead)
    : m_descriptor(descriptor), m_beforeRead(std::move(beforeRead)), m_buffer(longestLine) {}

bool LineReader::next(std::string_view& line) {
    while (!takeLine(line)) {
        if (!fill())
            return takeRest(line);
    }
    return true;
}

/// Takes a line that is complete, or cut because it fills the whole buffer.
bool LineReader::takeLine(std::string_view& line) {
    while (m_begin != m_end) {
        char* begin = m_buffer.data() + m_begin;
        const std::size_t size = m_end - m_begin;
        const auto* end = static_cast<const char*>(std::memchr(begin, '\n', size));
        if (!end && size < m_buffer.size())
            return false;
        line = {begin, end ? static_cast<std::size_t>(end - begin) : size};
        m_begin += line.size() + (end ? 1 : 0);
        const bool isRestOfCutLine = std::exchange(m_isInsideCutLine, end == nullptr);
        if (!isRestOfCutLine)
            return true;
    }
    return false;
}

/// What stands behind the last line end.
bool LineReader::takeRest(std::string_view& line) {
    line = {m_buffer.data() + m_begin, m_end - m_begin};
    m_begin = m_end;
    return !line.empty() && !m_isInsideCutLine;
}

bool LineReader::fill() {
    std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
    m_beforeRead();
    ssize_t count = 0;
    do
        count = ::read(m_descriptor, m_buffer.data() + m_end, m_buffer.size() - m_end);
    while (count < 0 && errno == EINTR);
    if (count > 0)
        m_end += static_cast<std::size_t>(count);
    return count > 0;
}

} // namespace orn_tool
