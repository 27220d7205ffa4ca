// Answers as text and as JSON.
#ifndef ORN_TOOLS_ANSWER_WRITER_H
#define ORN_TOOLS_ANSWER_WRITER_H

#include "json_writer.h"
#include "module_session.h"
#include "output.h"
#include "symbolizer.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace orn_tool {

/// Writes one line for each answer.
class AnswerWriter {
public:
    virtual void write(const Answer& answer) = 0;
    /// The line for what is no address.
    virtual void writeBadAddress(std::string_view text) = 0;
    virtual ~AnswerWriter() = default;
};

/// "0x401136  main+0x4 at main.c:12  (in example at 0x1136)".
class TextAnswerWriter : public AnswerWriter {
public:
    TextAnswerWriter(const ModuleSession& session, Output& output);

    void write(const Answer& answer) override;
    void writeBadAddress(std::string_view text) override;

private:
    void putFrame(const Frame& frame);
    void putOwner(const Answer& answer);

    Output& m_output;
    std::string m_moduleName; ///< without directories, printable
    std::size_t m_addressWidth;
};

/// {"module":...,"address":...,"rva":...,"symbol":{...} or null,"frames":[...]}.
class JsonAnswerWriter : public AnswerWriter {
public:
    JsonAnswerWriter(const ModuleSession& session, Output& output);

    void write(const Answer& answer) override;
    void writeBadAddress(std::string_view text) override;

private:
    void beginAnswer();
    void putSymbol(const Answer& answer);
    void putFrame(const Frame& frame);

    JsonWriter m_json;
    std::string m_module; ///< quoted
};

} // namespace orn_tool

#endif
