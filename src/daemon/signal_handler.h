#pragma once

#include <cstdint>
#include <map>
#include <string>

// The signals that the supervisor installs the handler for, by number.
extern const std::map<std::int32_t, std::string> signal_names;

// Ends the daemon, with status 0 for SIGINT, SIGQUIT and SIGTERM and 1 for SIGFPE, SIGSEGV, SIGBUS and SIGABRT; reaps
// children for SIGCHLD; takes no notice of any other signal.
//
// The first signal that ends the daemon decides: another one does not change the status, whichever thread it meets. Of a
// request and a fault that are sent in the same instant the request decides.
void signal_handler(std::int32_t number);

// Signals that are meant for the process interrupt the main thread only, and that only where it holds no lock that the
// handler could want: they are held back in the calling thread, and in every thread that it starts from then on, until
// it admits them. Faults are never held back.
void hold_signals();
void admit_signals();
