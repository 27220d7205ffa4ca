// "orn symbolize": addresses in, owners out. Addresses come from the arguments, or line by line from standard
// input; then every answer is out before the next line is waited for.

#include "commands.h"

#include "answer_writer.h"
#include "line_reader.h"
#include "output.h"

#include <charconv>
#include <memory>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace orn_tool {

namespace {

std::string_view withoutBlanks(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\v\f";
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// Hexadecimal of up to 64 bits, with or without "0x".
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

std::unique_ptr<AnswerWriter> makeWriter(const SymbolizeOptions& options, const ModuleSession& session,
                                         Output& output) {
    if (options.asJson)
        return std::make_unique<JsonAnswerWriter>(session, output);
    return std::make_unique<TextAnswerWriter>(session, output);
}

/// A line that is no address gets its answer too, so that answers and lines stay in step.
void answerInput(Symbolizer& symbolizer, AnswerWriter& writer, Output& output) {
    LineReader reader(STDIN_FILENO, [&output] { output.flush(); });
    std::string_view line;
    while (!output.hasFailed() && reader.next(line)) {
        const std::string_view text = withoutBlanks(line);
        if (const auto value = parseAddress(text))
            writer.write(symbolizer.resolve(*value));
        else
            writer.writeBadAddress(text);
    }
}

} // namespace

int runSymbolize(const SymbolizeOptions& options) {
    std::vector<unsigned long long> values;
    if (!parseAll(options.addresses, values))
        return exit_Usage;
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    Output output(STDOUT_FILENO);
    Symbolizer symbolizer(session, options.space);
    const auto writer = makeWriter(options, session, output);
    for (const unsigned long long value : values)
        writer->write(symbolizer.resolve(value));
    if (options.addresses.empty())
        answerInput(symbolizer, *writer, output);
    return finish(output);
}

} // namespace orn_tool
