// Runs another program for a test.
#ifndef ORN_TEST_COMMAND_H
#define ORN_TEST_COMMAND_H

#include <string>

namespace orn_test {

/// What `command`, run by the shell, writes to its standard output; its exit status goes to `exitStatus` if
/// that is given.
std::string commandOutput(const std::string& command, int* exitStatus = nullptr);

} // namespace orn_test

#endif
