// JSON output for answers by the million: nothing is built in memory, and text that needs no escaping, which
// is nearly all text, is passed on in one piece.

#include "json_writer.h"

namespace orn_tool {

namespace {

/// Whether a byte stands for itself inside quotes whatever comes behind it.
bool isPlain(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= 0x20 && value < 0x7f && value != '"' && value != '\\';
}

/// Length of the beginning of `text` that needs no second look.
std::size_t plainLength(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size() && isPlain(text[length]))
        ++length;
    return length;
}

/// Appends the character that `text` begins with, escaped if need be; gives the bytes used up.
std::size_t appendCharacter(std::string& out, std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    const std::size_t length = utf8Length(text);
    const auto first = static_cast<unsigned char>(text[0]);
    if (length == 0) {
        out += "\xEF\xBF\xBD"; // U+FFFD
        return 1;
    }
    if (first == '"' || first == '\\')
        out += {'\\', static_cast<char>(first)};
    else if (first < 0x20 || first == 0x7f)
        out += {'\\', 'u', '0', '0', digits[first >> 4U], digits[first & 0xfU]};
    else
        out += text.substr(0, length);
    return length;
}

} // namespace

std::string quoted(std::string_view text) {
    std::string out = "\"";
    out.reserve(text.size() + 2);
    while (!text.empty()) {
        const std::size_t plain = plainLength(text);
        out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (!text.empty())
            text.remove_prefix(appendCharacter(out, text));
    }
    out += '"';
    return out;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    separate();
    m_output.put('"').put(name).put("\":");
    m_needsComma = false;
    return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
    if (plainLength(text) != text.size())
        return readyString(quoted(text));
    separate();
    m_output.put('"').put(text).put('"');
    return *this;
}

JsonWriter& JsonWriter::readyString(std::string_view quotedText) {
    separate();
    m_output.put(quotedText);
    return *this;
}

JsonWriter& JsonWriter::hex(unsigned long long value) {
    separate();
    m_output.put('"').putHex(value).put('"');
    return *this;
}

JsonWriter& JsonWriter::number(unsigned long long value) {
    separate();
    m_output.putDecimal(value);
    return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
    separate();
    m_output.put(value ? "true" : "false");
    return *this;
}

JsonWriter& JsonWriter::null() {
    separate();
    m_output.put("null");
    return *this;
}

void JsonWriter::endLine() {
    m_output.put('\n');
    m_needsComma = false;
}

JsonWriter& JsonWriter::open(char bracket) {
    separate();
    m_output.put(bracket);
    m_needsComma = false;
    return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
    m_output.put(bracket);
    m_needsComma = true;
    return *this;
}

void JsonWriter::separate() {
    if (m_needsComma)
        m_output.put(',');
    m_needsComma = true;
}

} // namespace orn_tool
