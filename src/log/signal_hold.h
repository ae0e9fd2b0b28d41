#pragma once

// The signal handler logs, so it must never interrupt a thread that holds a log's lock. Threads therefore run with
// signals held; only the main thread admits them, where it logs nothing.
//
// hold_signals blocks every signal except the faults, in the calling thread and in the threads that it starts later;
// admit_signals unblocks them. Faults stay unblocked because they strike the thread that caused them. Both may be
// called from any thread and from the signal handler.
void hold_signals();
void admit_signals();
