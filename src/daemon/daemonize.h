#pragma once

// Holds the daemon's process id in decimal and a line end. No setting moves this file.
inline constexpr char pid_file_path[] = "/var/run/marluserver.pid";

// Detaches this process from its terminal and session and writes the pid file. Returns only in the daemon: the calling
// process and one in between exit here, with status 0. If a step fails, the process at hand writes a line to standard
// error and exits with 1. A pid file that cannot be written is no failure. To be called before any other thread exists.
void daemonize();

// True when there is a pid file that can be read, whatever it holds.
bool is_daemon_running();
