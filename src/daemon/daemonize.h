#pragma once

// Holds the daemon's process id in decimal and a line end. No setting changes where it lies.
inline constexpr char pid_file_path[] = "/var/run/marluserver.pid";

// Detaches this process from its terminal and session and writes the pid file. Returns in the daemon alone; the
// processes on the way exit inside, with 0, or with 1 and a line on standard error when a step fails. To be called
// before any thread exists. A pid file that cannot be written is no failure.
void daemonize();

// True when there is a pid file that can be read, whatever it holds.
bool is_daemon_running();
