// "orn frame": which variable of a stopped function lies at an address of its stack. Registers and addresses
// come from whoever stopped the program; nothing here looks into a process.

#include "commands.h"

#include "address_text.h"
#include "json_writer.h"
#include "output.h"

#include "orn/address.h"
#include "orn/source.h"
#include "orn/stack_frame_context.h"
#include "orn/symbol.h"

#include <string>
#include <unistd.h>

namespace orn_tool {

using ORN_3_30::IAddress;
using ORN_3_30::isFailure;
using ORN_3_30::ISourceLocation;
using ORN_3_30::IStackFrameContext;
using ORN_3_30::ISymbol;
using ORN_3_30::ISymbolRange;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using ORN_3_30::toUString;
using enum ORN_3_30::status_t;
using enum ORN_3_30::symbol_kind_t;

namespace {

/// The numbers of the command line, in the order in which they are read.
struct FrameQuestion {
    unsigned long long code;
    unsigned long long data;
    unsigned long long stackPointer;
    unsigned long long framePointer;
};

/// What lies at the data address. The objects belong to the module's bank.
struct StackAnswer {
    SymMgrObjectPtr<ISymbolRange> function;
    SymMgrObjectPtr<ISymbol> variable;
    bool isMember = false;
    unsigned long long begin = 0; ///< of the variable
    SymMgrObjectPtr<ISourceLocation> declaration;
};

/// Index 0 and 1 of a frame.
enum : int { stackPointerIndex = 0, framePointerIndex = 1 };

SymMgrObjectPtr<IStackFrameContext> makeFrame(const FrameQuestion& question) {
    IStackFrameContext* created = IStackFrameContext::create();
    if (!created)
        throw std::bad_alloc();
    SymMgrObjectPtr<IStackFrameContext> frame = created;
    created->release();
    frame->setRegister(stackPointerIndex, question.stackPointer);
    frame->setRegister(framePointerIndex, question.framePointer);
    return frame;
}

bool readQuestion(const FrameOptions& options, FrameQuestion& question) {
    std::vector<unsigned long long> values;
    if (!parseAll({options.code, options.data, options.stackPointer, options.framePointer}, values))
        return false;
    question = {values[0], values[1], values[2], values[3]};
    return true;
}

status_t find(const ModuleSession& session, const FrameQuestion& question, StackAnswer& answer) {
    SymMgrObjectPtr<IAddress> code;
    status_t status = session.bank().addressFromPseudoAddress(question.code, code);
    if (isFailure(status))
        return status;
    // A load that fails in part is told once; the second query answers from what could be read.
    status = session.bank().symbolRangeByAddress(code, answer.function, symbol_kind_function, nullptr);
    if (isFailure(status)) {
        warnAboutSymbols(session.path(), status);
        status = session.bank().symbolRangeByAddress(code, answer.function, symbol_kind_function, nullptr);
    }
    if (status != status_Ok)
        return status;
    status = session.bank().findStackVariable(code, question.data, makeFrame(question), answer.variable,
                                              &answer.isMember);
    if (status != status_Ok || !answer.variable)
        return status;
    SymMgrObjectPtr<IAddress> begin;
    answer.variable->address(begin);
    answer.begin = begin ? begin->pseudoAddr() : question.data;
    static_cast<void>(answer.variable->sourceLocation(answer.declaration));
    return status;
}

const char* fileOf(const StackAnswer& answer) {
    return answer.declaration && answer.declaration->file() ? answer.declaration->file()->name() : nullptr;
}

const char* functionOf(const StackAnswer& answer) {
    ISymbol* symbol = answer.function ? answer.function->symbol() : nullptr;
    return symbol ? symbol->demangledName(0) : nullptr;
}

void printText(Output& output, const FrameQuestion& question, const StackAnswer& answer) {
    if (!answer.variable) {
        output.put("no variable there\n");
        return;
    }
    const char* function = functionOf(answer);
    output.putPrintable(answer.variable->rawName());
    output.put(answer.isMember ? "  member" : "  variable");
    output.put("  ").putHex(answer.begin).put('+').putDecimal(question.data - answer.begin);
    output.put("  in ").putPrintable(function ? function : "??");
    output.put("  ").putPrintable(fileOf(answer) ? fileOf(answer) : "??");
    if (answer.declaration && answer.declaration->line() != 0) {
        output.put(':').putDecimal(answer.declaration->line());
        if (answer.declaration->column() != 0)
            output.put(':').putDecimal(answer.declaration->column());
    }
    output.put('\n');
}

void printVariable(JsonWriter& json, const FrameQuestion& question, const StackAnswer& answer) {
    if (!answer.variable) {
        json.null();
        return;
    }
    json.beginObject().key("name").string(answer.variable->rawName());
    json.key("member").boolean(answer.isMember);
    json.key("begin").hex(answer.begin).key("offset").number(question.data - answer.begin);
    json.key("declaration");
    if (answer.declaration) {
        const auto known = [](unsigned value) { return value != 0 ? std::optional(value) : std::nullopt; };
        json.beginObject().key("file").stringOrNull(fileOf(answer));
        json.key("line").number(known(answer.declaration->line()));
        json.key("column").number(known(answer.declaration->column())).endObject();
    } else {
        json.null();
    }
    json.endObject();
}

void printJson(Output& output, const ModuleSession& session, const FrameQuestion& question,
               const StackAnswer& answer) {
    JsonWriter json(output);
    json.beginObject().key("module").string(session.path());
    json.key("pc").hex(question.code).key("data").hex(question.data);
    json.key("function").stringOrNull(functionOf(answer)).key("variable");
    printVariable(json, question, answer);
    json.endObject().endLine();
}

/// That nothing lies there is an answer; that nothing could be searched is told apart from it.
void reportNoAnswer(const ModuleSession& session, const StackAnswer& answer, status_t status) {
    const std::string problem = "no variables of '" + printable(session.path()) + "' can be searched: ";
    if (isFailure(status))
        printError(
            problem + toUString(status) +
            ": the address is outside the module's functions, or its function has no debug information "
            "that is read; see it with 'orn symbolize'");
    else if (!answer.function)
        printError(problem + "no function is known at this address; see with 'orn info' where the module's "
                             "symbols come from, and name a directory of debug files with --debug-dir");
}

} // namespace

int runFrame(const FrameOptions& options) {
    FrameQuestion question{};
    if (!readQuestion(options, question))
        return exit_Usage;
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    StackAnswer answer;
    const status_t status = find(session, question, answer);
    if (!answer.variable)
        reportNoAnswer(session, answer, status);
    Output output(STDOUT_FILENO);
    if (options.asJson)
        printJson(output, session, question, answer);
    else
        printText(output, question, answer);
    return finish(output);
}

} // namespace orn_tool
