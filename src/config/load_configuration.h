#pragma once

#include <string>

#include "config/config_file.h"

// Reads the configuration file into server_config and opens the logs. Returns true when the servers may start. On the
// first error it writes the reason to standard error and, once the start switches have been read, to the logs of the
// servers that are on, and returns false; values set before the error stay. Throws std::runtime_error when the
// program's directory cannot be found. To be called once, on the main thread, before any server thread exists, with
// signals admitted; returns with signals held.
bool load_configuration();

// Returns the directory of the running program, or "" when it cannot be found out.
std::string get_starting_directory();

// The two halves of load_configuration, which opens the logs between them. Each fills its part of server_config and
// throws std::exception with the reason when it refuses a value. context is that of the second half's log lines.
void read_log_settings(const Settings& settings);
void read_server_settings(const Settings& settings, const std::string& context);
