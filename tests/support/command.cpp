// popen and pclose for tests that ask other programs.

#include "command.h"

#include <array>
#include <cstdio>

namespace orn_test {

std::string commandOutput(const std::string& command, int* exitStatus) {
    std::string text;
    int status = -1;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        std::array<char, 65536> part;
        while (const std::size_t count = fread(part.data(), 1, part.size(), pipe))
            text.append(part.data(), count);
        status = pclose(pipe);
    }
    if (exitStatus)
        *exitStatus = status;
    return text;
}

} // namespace orn_test
