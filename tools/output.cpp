// Buffered output. The verbs print up to millions of short pieces, for which neither a stream's formatting
// nor a write of its own each would do.

#include "output.h"

#include <cerrno>
#include <charconv>
#include <unistd.h>

namespace orn_tool {

namespace {

constexpr std::size_t bufferSize = 64 * 1024;
constexpr char hexDigits[] = "0123456789abcdef";

/// "0x" and digits; the longest takes 18 bytes.
std::string_view formatHex(unsigned long long value, char (&text)[18]) {
    text[0] = '0';
    text[1] = 'x';
    const auto result = std::to_chars(text + 2, text + sizeof text, value, 16);
    return {text, static_cast<std::size_t>(result.ptr - text)};
}

bool isControl(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (sequence.size() == 1)
        return first < 0x20 || first == 0x7f;
    return first == 0xc2 && static_cast<unsigned char>(sequence[1]) < 0xa0;
}

bool isPlain(std::string_view text) {
    for (const char byte : text)
        if (byte < 0x20 || byte >= 0x7f)
            return false;
    return true;
}

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

} // namespace

Output::Output(int descriptor) : m_descriptor(descriptor) {
    m_buffer.reserve(bufferSize);
}

Output& Output::put(std::string_view bytes) {
    if (m_buffer.size() + bytes.size() > bufferSize)
        flush();
    m_buffer.append(bytes);
    return *this;
}

Output& Output::putSpaces(std::size_t count) {
    m_buffer.append(count, ' ');
    return *this;
}

Output& Output::putDecimal(unsigned long long value) {
    char text[20];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return put({text, static_cast<std::size_t>(result.ptr - text)});
}

Output& Output::putHex(unsigned long long value) {
    char text[18];
    return put(formatHex(value, text));
}

Output& Output::putPrintable(std::string_view text) {
    return isPlain(text) ? put(text) : put(printable(text));
}

void Output::flush() {
    std::size_t done = 0;
    while (done < m_buffer.size() && !m_failed) {
        const ssize_t count = ::write(m_descriptor, m_buffer.data() + done, m_buffer.size() - done);
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            m_failed = true;
    }
    m_buffer.clear();
}

std::string hexText(unsigned long long value) {
    char text[18];
    return std::string(formatHex(value, text));
}

std::string printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        if (length != 0 && !isControl(text.substr(0, length))) {
            shown += text.substr(0, length);
            text.remove_prefix(length);
            continue;
        }
        const auto byte = static_cast<unsigned char>(text[0]);
        shown += {'\\', 'x', hexDigits[byte >> 4U], hexDigits[byte & 0xfU]};
        text.remove_prefix(1);
    }
    return shown;
}

// Overlong forms, surrogates and values above U+10FFFF are no sequences: JSON readers refuse them.
std::size_t utf8Length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    const auto second = static_cast<unsigned char>(text.size() > 1 ? text[1] : 0);
    if (first < 0x80)
        return 1;
    std::size_t length = 0;
    if (first >= 0xc2 && first <= 0xdf)
        length = 2;
    else if (first >= 0xe0 && first <= 0xef)
        length = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ? 0 : 3;
    else if (first >= 0xf0 && first <= 0xf4)
        length = (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f) ? 0 : 4;
    if (length == 0 || text.size() < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if (!isContinuation(text[i]))
            return 0;
    return length;
}

} // namespace orn_tool
