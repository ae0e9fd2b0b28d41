#pragma once

#include <string>

// Loads the configuration file at path into server_config as the daemon does, in this process, without opening a log,
// and changes to the daemon's working directory, "/". Throws std::exception with the daemon's error text when the
// daemon would refuse the configuration.
void load_as_the_daemon(const std::string& path);

// Does the same, tries what the servers will open, and prints "OK" and a summary to standard output, and to standard
// error a warning for each setting that works and is almost certainly a mistake. Throws std::exception when the daemon
// would refuse the configuration or a server could not start; that a port is in use now is no reason.
void check_config(const std::string& path);
