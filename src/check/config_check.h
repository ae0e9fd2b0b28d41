#pragma once

#include <string>

// Reads the configuration file at path as the daemon does, in this process, without opening a socket or a log. Prints
// "OK" and a summary to standard output, or the daemon's error text to standard error, and there also a warning for
// everything that the daemon accepts and a user would not want. Returns true when the daemon would not refuse it.
// Changes the working directory to "/", where the daemon runs.
bool check_config(const std::string& path);
