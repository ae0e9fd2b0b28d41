#pragma once

#include <string>

#include "config/config_file.h"

// Reads the configuration file at path and changes to the daemon's working directory, "/". Throws std::runtime_error as
// read_config_file does.
Settings read_as_the_daemon(const std::string& path);

// Loads the configuration file at path as the daemon does, in this process, without opening a socket or a log. Prints
// "OK" and a summary to standard output, and to standard error a warning for each setting that the daemon accepts and
// nobody wants. Throws std::exception with the daemon's error text when the daemon would refuse the configuration.
void check_config(const std::string& path);
