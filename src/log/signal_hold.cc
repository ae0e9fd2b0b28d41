#include "log/signal_hold.h"

#include <signal.h>

#include <initializer_list>

namespace {

void change_mask(int how) {
    sigset_t held;
    sigfillset(&held);
    for (const int fault : {SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) sigdelset(&held, fault);
    pthread_sigmask(how, &held, nullptr);
}

}  // namespace

void hold_signals() {
    change_mask(SIG_BLOCK);
}

void admit_signals() {
    change_mask(SIG_UNBLOCK);
}
