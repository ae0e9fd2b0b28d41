#pragma once

// Runs the daemon: installs the signal handler, loads the configuration, starts the configured servers and waits until
// none runs. Ends the process through the signal handler and does not return. Call on the main thread, with signals
// held. Throws what load_configuration throws, and std::system_error when a thread cannot be started.
void run_servers();
