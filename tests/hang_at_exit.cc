// To be loaded into the daemon: its exit then hangs, which shows that somebody cuts it short.
#include <unistd.h>

[[gnu::destructor]] static void hang() {
    // The processes that start the daemon exit too, in the directory that holds the program.
    while (access("marluserver", F_OK) != 0) pause();
}
