// Reads addresses from the command line and from standard input. Nothing is guessed: a text that is not
// wholly an address is none.

#include "address_text.h"

#include "output.h"

#include <charconv>
#include <unistd.h>

namespace orn_tool {

std::string_view withoutBlanks(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\v\f";
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::optional<unsigned long long> parseAddress(std::string_view text) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    unsigned long long value = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value, 16);
    if (error != std::errc() || stopped != end || text[0] == '-')
        return std::nullopt;
    return value;
}

bool parseAll(const std::vector<std::string>& texts, std::vector<unsigned long long>& values) {
    for (const std::string& text : texts) {
        const auto value = parseAddress(withoutBlanks(text));
        if (!value) {
            Output error(STDERR_FILENO);
            error.put("orn: '").putPrintable(text);
            error.put("' is no address: write it in hexadecimal, with or without 0x, in at most 64 bits\n");
            error.flush();
            return false;
        }
        values.push_back(*value);
    }
    return true;
}

} // namespace orn_tool
