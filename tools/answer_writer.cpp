// Answers as text for people and as JSON for programs.

#include "answer_writer.h"

#include "names.h"

#include "orn/symbol.h"

namespace orn_tool {

namespace {

std::string_view nameIn(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

} // namespace

TextAnswerWriter::TextAnswerWriter(const ModuleSession& session, Output& output)
    : m_output(output),
      m_moduleName(printable(nameIn(session.path()))),
      m_addressWidth(session.addressWidth()) {}

void TextAnswerWriter::write(const Answer& answer) {
    const std::string address = answer.address ? hexText(*answer.address) : "??";
    m_output.put(address);
    if (address.size() < m_addressWidth)
        m_output.putSpaces(m_addressWidth - address.size());
    m_output.put("  ");
    if (answer.symbol)
        putOwner(answer);
    else
        m_output.put("??");
    m_output.put('\n');
}

void TextAnswerWriter::writeBadAddress(std::string_view text) {
    m_output.putPrintable(text).put("  ??\n");
}

void TextAnswerWriter::putOwner(const Answer& answer) {
    for (const Frame& frame : answer.frames) {
        if (&frame != &answer.frames.front())
            m_output.put(", inlined into ");
        putFrame(frame);
        if (!frame.isInlined && *answer.address != answer.begin)
            m_output.put(frame.file ? " +" : "+").putHex(*answer.address - answer.begin);
    }
    if (answer.isThunk)
        m_output.put(" (import)");
    m_output.put("  (in ").put(m_moduleName).put(" at ").putHex(answer.rva.value_or(0)).put(')');
}

void TextAnswerWriter::putFrame(const Frame& frame) {
    m_output.putPrintable(frame.function);
    if (!frame.file)
        return;
    m_output.put(" at ").putPrintable(frame.file);
    if (frame.line)
        m_output.put(':').putDecimal(*frame.line);
}

JsonAnswerWriter::JsonAnswerWriter(const ModuleSession& session, Output& output)
    : m_json(output), m_module(quoted(session.path())) {}

void JsonAnswerWriter::write(const Answer& answer) {
    beginAnswer();
    m_json.key("address").hex(answer.address);
    m_json.key("rva").hex(answer.rva);
    m_json.key("symbol");
    if (answer.symbol)
        putSymbol(answer);
    else
        m_json.null();
    m_json.key("frames").beginArray();
    for (const Frame& frame : answer.frames)
        putFrame(frame);
    m_json.endArray().endObject().endLine();
}

void JsonAnswerWriter::writeBadAddress(std::string_view text) {
    beginAnswer();
    m_json.key("address").string(text).key("rva").null().key("symbol").null();
    m_json.key("frames").beginArray().endArray().endObject().endLine();
}

void JsonAnswerWriter::beginAnswer() {
    m_json.beginObject().key("module").readyString(m_module);
}

void JsonAnswerWriter::putSymbol(const Answer& answer) {
    ORN_3_30::ISymbol& symbol = *answer.symbol;
    m_json.beginObject();
    m_json.key("name").string(symbol.demangledName(0)).key("raw").string(symbol.rawName());
    m_json.key("kind").string(wordFor(symbol.kind()));
    m_json.key("visibility").string(wordFor(symbol.visibility()));
    m_json.key("begin").hex(answer.begin).key("end").hex(answer.end);
    m_json.key("thunk").boolean(answer.isThunk);
    m_json.endObject();
}

void JsonAnswerWriter::putFrame(const Frame& frame) {
    m_json.beginObject().key("function").string(frame.function).key("raw").string(frame.raw);
    m_json.key("file").stringOrNull(frame.file);
    m_json.key("line").number(frame.line);
    m_json.key("column").number(frame.column);
    m_json.key("inlined").boolean(frame.isInlined).endObject();
}

} // namespace orn_tool
