#pragma once

// What the daemon does: takes over the signals, loads the configuration, starts the servers that it names and waits
// until none runs. Ends the process through the signal handler and does not return. To be called on the main thread,
// with signals held. Throws what load_configuration and
// starting a thread throw.
void run_servers();
