// Runs programs, and the command line among them, as a person or a pipe would.
#ifndef ORN_TEST_TOOL_PROCESS_H
#define ORN_TEST_TOOL_PROCESS_H

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace orn_test {

struct ProcessResult {
    int exitStatus; ///< negative: the signal that ended it
    std::string output;
    std::string error;
};

/// Runs `command` to its end with `input` for its standard input. The first word is looked up in PATH.
ProcessResult runProcess(const std::vector<std::string>& command, std::string_view input = {});

/// A program with a pipe at either side, to talk with it line by line. Gone, by force if need be, with the
/// object.
class Dialogue {
public:
    explicit Dialogue(const std::vector<std::string>& command);
    ~Dialogue();
    Dialogue(const Dialogue&) = delete;
    Dialogue& operator=(const Dialogue&) = delete;

    void send(std::string_view text) const;
    /// The next line without its end; empty if none comes within ten seconds.
    std::string receiveLine();
    /// Closes the input and waits for the program to end; gives its exit status.
    int finish();

private:
    pid_t m_process = -1;
    int m_input = -1;
    int m_output = -1;
    std::string m_received;
};

} // namespace orn_test

#endif // ORN_TEST_TOOL_PROCESS_H
