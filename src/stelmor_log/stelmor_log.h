// Stand-in for the logging configuration library.
#ifndef STELMOR_LOG_H
#define STELMOR_LOG_H

#include <string>

namespace stelmor_1::log {

/// Prepares log4cplus for one component. Called once a process, before the component's logger is fetched.
void configureComponentLogger(const std::string& component);

} // namespace stelmor_1::log

#endif
