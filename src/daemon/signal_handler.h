#pragma once

#include <cstdint>
#include <map>
#include <string>

// The signals that the supervisor installs the handler for, by number.
extern const std::map<std::int32_t, std::string> signal_names;

// Ends the daemon, with status 0 for SIGINT, SIGQUIT and SIGTERM and 1 for SIGFPE, SIGSEGV, SIGBUS and SIGABRT; reaps
// children for SIGCHLD; returns at once for any other signal.
//
// The first signal that ends the daemon decides the status; a later one changes nothing. Runs on any thread;
// log/signal_hold.h tells how it keeps off a thread that holds a log's lock.
void signal_handler(std::int32_t number);
