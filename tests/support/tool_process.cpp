#include "support/tool_process.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orn_test {

namespace {

std::vector<char*> argumentsOf(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    return arguments;
}

/// Between fork and exec nothing may allocate: the test program may have other threads.
[[noreturn]] void become(const std::vector<char*>& arguments, int input, int output, int error) {
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    if (error >= 0)
        dup2(error, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

int statusOf(pid_t process) {
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

// Files and not pipes: nobody has to be read from while somebody else is written to.
ProcessResult runProcess(const std::vector<std::string>& command, std::string_view input) {
    const TempDir directory;
    const std::string outputFile = directory.write("output", "");
    const std::string errorFile = directory.write("error", "");
    const std::vector<char*> arguments = argumentsOf(command);
    const int in = open(directory.write("input", input).c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(outputFile.c_str(), O_WRONLY | O_CLOEXEC);
    const int err = open(errorFile.c_str(), O_WRONLY | O_CLOEXEC);
    const pid_t process = fork();
    if (process == 0)
        become(arguments, in, out, err);
    ProcessResult result{statusOf(process), {}, {}};
    close(in);
    close(out);
    close(err);
    result.output = TempDir::contents(outputFile);
    result.error = TempDir::contents(errorFile);
    return result;
}

Dialogue::Dialogue(const std::vector<std::string>& command) {
    const std::vector<char*> arguments = argumentsOf(command);
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipes";
        return;
    }
    m_process = fork();
    if (m_process == 0)
        become(arguments, input[0], output[1], -1);
    close(input[0]);
    close(output[1]);
    m_input = input[1];
    m_output = output[0];
}

Dialogue::~Dialogue() {
    if (m_process > 0) {
        kill(m_process, SIGKILL);
        finish();
    }
    close(m_output);
}

void Dialogue::send(std::string_view text) const {
    EXPECT_EQ(write(m_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::string Dialogue::receiveLine() {
    constexpr int patience = 10000;
    while (m_received.find('\n') == std::string::npos) {
        pollfd wanted{m_output, POLLIN, 0};
        char part[4096];
        if (poll(&wanted, 1, patience) != 1)
            return {};
        const ssize_t count = read(m_output, part, sizeof part);
        if (count <= 0)
            return {};
        m_received.append(part, static_cast<std::size_t>(count));
    }
    const std::size_t end = m_received.find('\n');
    std::string line = m_received.substr(0, end);
    m_received.erase(0, end + 1);
    return line;
}

int Dialogue::finish() {
    close(m_input);
    m_input = -1;
    const int status = statusOf(m_process);
    m_process = -1;
    return status;
}

} // namespace orn_test
