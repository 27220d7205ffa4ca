// Buffered output and the ways in which values are written.
#ifndef ORN_TOOLS_OUTPUT_H
#define ORN_TOOLS_OUTPUT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace orn_tool {

/// Writes to a file descriptor through a buffer. What is left in the buffer at the end is the owner's to
/// flush.
class Output {
public:
    explicit Output(int descriptor);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Bytes as they are.
    Output& put(std::string_view bytes);
    Output& put(char byte) { return put(std::string_view(&byte, 1)); }
    Output& putSpaces(std::size_t count);
    Output& putDecimal(unsigned long long value);
    /// With "0x", lower case, no leading zeros.
    Output& putHex(unsigned long long value);
    /// Text from a file for a terminal: what is not printable becomes "\x1b" and the like, so that a name
    /// cannot steer the terminal.
    Output& putPrintable(std::string_view text);

    void flush();
    /// True once something could not be written; everything later is dropped.
    bool hasFailed() const { return m_failed; }

private:
    int m_descriptor;
    bool m_failed = false;
    std::string m_buffer;
};

std::string hexText(unsigned long long value);
std::string printable(std::string_view text);

/// Length of the UTF-8 sequence that `text` begins with; 0 if that is none.
std::size_t utf8Length(std::string_view text);

} // namespace orn_tool

#endif
