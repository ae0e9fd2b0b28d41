#pragma once

#include <string>

// Reads the configuration file into server_config and opens the logs. Returns true when the servers may start. On the
// first thing that is wrong it writes the reason to standard error and to the logs that are open, and returns false;
// what was set before stays set. Throws std::runtime_error when the program's directory cannot be found out.
// To be called once, on the main thread, before any server thread exists.
bool load_configuration();

// Returns the directory of the running program, or "" when it cannot be found out.
std::string get_starting_directory();
