// Logging discipline: one logger, one trace block at the head and foot of each public operation, one shape of
// warnings, errors and assertions. log4cplus itself stays inside orn_log.cpp.
#ifndef ORN_LOG_H
#define ORN_LOG_H

#include "orn/status.h"

#include <new>
#include <ostream>

namespace ORN_3_30::internal {

/// The four levels in use, by their log4cplus numbers.
enum log_level_t : int { log_Trace = 0, log_Information = 20000, log_Warning = 30000, log_Error = 40000 };

/// Makes the logger if this is the first call.
bool touchLogger() noexcept;

/// Every source file makes sure in its static initialiser that the logger stands before any exported function
/// runs, whichever file is initialised first.
[[maybe_unused]] static const bool s_loggerTouched = touchLogger();

/// Also false before the logger exists and after it is gone.
bool isLogEnabled(log_level_t level) noexcept;

/// Builds the text and logs it if `level` is enabled; warnings and errors get their origin appended. Nothing
/// that goes wrong here reaches the caller.
void logBuilt(log_level_t level, const char* file, int line, void (*build)(std::ostream&, const void*),
              const void* context) noexcept;

template <typename Build>
void logMessage(log_level_t level, const char* file, int line, const Build& build) noexcept {
    logBuilt(
        level, file, line,
        [](std::ostream& stream, const void* context) { (*static_cast<const Build*>(context))(stream); },
        &build);
}

void reportFailedAssertion(const char* expression, const char* file, int line) noexcept;

/// Reports a condition that does not hold and lets the caller go on. Gives the condition.
inline bool check(bool condition, const char* expression, const char* file, int line) noexcept {
    if (!condition)
        reportFailedAssertion(expression, file, line);
    return condition;
}

/// Stands at the head of a public operation, outside its try block, so that EXIT comes last. Costs one test
/// of the level when tracing is off; the answer at entry decides for the whole block.
class TraceBlock {
public:
    TraceBlock(const char* operation, const char* file, int line) noexcept;
    ~TraceBlock();
    TraceBlock(const TraceBlock&) = delete;
    TraceBlock& operator=(const TraceBlock&) = delete;

    /// One traced argument. A null text prints nothing behind " = ".
    void in(const char* argument, const char* value) noexcept;
    void in(const char* argument, unsigned long long value) noexcept;

private:
    struct Entry;
    Entry* m_entry;
};

} // namespace ORN_3_30::internal

/// `message` is a chain of stream insertions: ORN_LOG_ERROR("Unable to read " << size << " bytes").
#define ORN_LOG_AT(level, message)                                                                           \
    ::ORN_3_30::internal::logMessage(level, __FILE__, __LINE__,                                              \
                                     [&](std::ostream& ornLogStream) { ornLogStream << message; })
#define ORN_LOG_INFO(message) ORN_LOG_AT(::ORN_3_30::internal::log_Information, message)
#define ORN_LOG_WARNING(message) ORN_LOG_AT(::ORN_3_30::internal::log_Warning, message)
#define ORN_LOG_ERROR(message) ORN_LOG_AT(::ORN_3_30::internal::log_Error, message)

/// Always evaluates `expression`, reports if it is false and yields it as a bool. It never aborts. The text
/// is made at one level, so that NULL stays NULL.
#define ORN_ASSERT(expression)                                                                               \
    ::ORN_3_30::internal::check(static_cast<bool>(expression), #expression, __FILE__, __LINE__)
/// The same with the text given.
#define ORN_ASSERT_TEXT(expression, text)                                                                    \
    ::ORN_3_30::internal::check(static_cast<bool>(expression), text, __FILE__, __LINE__)

#define ORN_TRACE(operation) ::ORN_3_30::internal::TraceBlock ornTraceBlock(operation, __FILE__, __LINE__)
#define ORN_TRACE_IN(argument, value) ornTraceBlock.in(argument, value)

/// Closes the try block of a public operation: an allocation failure becomes a status here, nowhere deeper.
#define ORN_CATCH_OUT_OF_MEMORY                                                                              \
    catch (const std::bad_alloc&) {                                                                          \
        ORN_LOG_ERROR("Out of memory");                                                                      \
        return ::ORN_3_30::status_OutOfMemory;                                                               \
    }

#endif
