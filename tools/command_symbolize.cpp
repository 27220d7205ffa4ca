// "orn symbolize": addresses in, owners out. Addresses come from the arguments, or line by line from standard
// input; then every answer is out before the next line is waited for.

#include "commands.h"

#include "address_text.h"
#include "answer_writer.h"
#include "line_reader.h"
#include "output.h"

#include <memory>
#include <string_view>
#include <unistd.h>

namespace orn_tool {

namespace {

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
    session.askForKernel();
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
