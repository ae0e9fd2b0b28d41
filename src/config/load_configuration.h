#pragma once

#include <string>

#include "config/config_file.h"

// Reads the configuration file into server_config and opens the logs. Returns true when the servers may start. On the
// first thing that is wrong it writes the reason to standard error and to the logs that are open, and returns false;
// what was set before stays set. Throws std::runtime_error when the program's directory cannot be found out.
// To be called once, on the main thread, before any server thread exists.
bool load_configuration();

// Returns the directory of the running program, or "" when it cannot be found out.
std::string get_starting_directory();

// The two halves of the load, between which load_configuration opens the logs: which logs there are, and everything
// else. Each fills its part of server_config and throws std::exception with the reason when a value is refused. context
// is that of the lines that the second one logs.
void read_log_settings(const Settings& settings);
void read_server_settings(const Settings& settings, const std::string& context);
