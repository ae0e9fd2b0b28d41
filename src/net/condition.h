#pragma once

#include <semaphore.h>

#include <atomic>
#include <mutex>

// A condition variable whose notifications cost the notifying thread next to nothing. With the standard one a listener
// that wakes workers in quick succession has to wait for those that it woke before, and each of them, which locks as if
// others waited for the lock, enters the system once more to unlock: a tenth of the cost of a small answer.
// All threads that wait on one have to wait for the same thing: who comes later may take the wake-up of who came before.
class Condition {
  public:
    Condition() { sem_init(&wake_ups, 0, 0); }
    ~Condition() { sem_destroy(&wake_ups); }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    // Returns when holds() is true, with lock locked. Meanwhile unlocks it and waits for notifications.
    template <class Predicate>
    void wait(std::unique_lock<std::mutex>& lock, Predicate holds) {
        while (!holds()) {
            ++waiting;  // while locked: whoever then changes what holds() looks at finds this thread counted
            lock.unlock();
            while (sem_wait(&wake_ups) != 0) {  // interrupted by a signal
            }
            lock.lock();
        }
    }

    // Wakes one waiting thread, if there is one. Callable from any thread.
    void notify_one() {
        int count = waiting;
        while (count > 0 && !waiting.compare_exchange_weak(count, count - 1)) {
        }
        if (count > 0) sem_post(&wake_ups);
    }

    // Wakes all waiting threads. Callable from any thread.
    void notify_all() {
        for (int count = waiting.exchange(0); count > 0; --count) sem_post(&wake_ups);
    }

  private:
    sem_t wake_ups;               // granted to threads that have not taken them yet
    std::atomic<int> waiting{0};  // threads that no wake-up has been granted to
};
