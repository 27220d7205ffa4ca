// JSON, one object a line.
#ifndef ORN_TOOLS_JSON_WRITER_H
#define ORN_TOOLS_JSON_WRITER_H

#include "output.h"

#include <optional>
#include <string>
#include <string_view>

namespace orn_tool {

/// Writes JSON piece by piece; commas come by themselves. A value inside an object follows a key().
class JsonWriter {
public:
    explicit JsonWriter(Output& output) : m_output(output) {}

    JsonWriter& beginObject() { return open('{'); }
    JsonWriter& endObject() { return close('}'); }
    JsonWriter& beginArray() { return open('['); }
    JsonWriter& endArray() { return close(']'); }
    /// `name` needs no escaping.
    JsonWriter& key(std::string_view name);

    /// Bytes that are no UTF-8 become U+FFFD.
    JsonWriter& string(std::string_view text);
    /// A string made by quoted().
    JsonWriter& readyString(std::string_view quotedText);
    /// Addresses and sizes of 64 bits are strings: many readers of JSON keep 53 bits of a number.
    JsonWriter& hex(unsigned long long value);
    JsonWriter& number(unsigned long long value);
    JsonWriter& boolean(bool value);
    JsonWriter& null();
    /// The value, or null without one.
    JsonWriter& hex(const std::optional<unsigned long long>& value) { return value ? hex(*value) : null(); }
    JsonWriter& number(const std::optional<unsigned>& value) { return value ? number(*value) : null(); }
    JsonWriter& stringOrNull(const char* text) { return text ? string(text) : null(); }

    /// Ends the line of a finished object.
    void endLine();

private:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    void separate();

    Output& m_output;
    bool m_needsComma = false;
};

/// `text` as a JSON string, quotes included.
std::string quoted(std::string_view text);

} // namespace orn_tool

#endif
