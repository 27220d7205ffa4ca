// Addresses as people write them.
#ifndef ORN_TOOLS_ADDRESS_TEXT_H
#define ORN_TOOLS_ADDRESS_TEXT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orn_tool {

std::string_view withoutBlanks(std::string_view text);

/// Hexadecimal of up to 64 bits, with or without "0x".
std::optional<unsigned long long> parseAddress(std::string_view text);

/// Appends all of `texts` to `values`; names the first that is no address on standard error.
bool parseAll(const std::vector<std::string>& texts, std::vector<unsigned long long>& values);

} // namespace orn_tool

#endif
