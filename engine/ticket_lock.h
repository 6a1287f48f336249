// The ticket lock that guards the engine's rings: a thread takes the next ticket and spins until
// it is served. Both sides hold it only for a copy of at most a few hundred bytes, so spinning is
// cheaper than any kernel object, and waiters are served in order (the engine is never starved by
// a user interface that pops in a tight loop).
#pragma once
#include "base/types.h"

typedef struct TicketLock {
  volatile u64 next_ticket;
  volatile u64 now_serving;
} TicketLock;

static inline void TicketLockAcquire(TicketLock *lock) {
  u64 ticket = __atomic_fetch_add(&lock->next_ticket, 1, __ATOMIC_ACQ_REL);
  while (__atomic_load_n(&lock->now_serving, __ATOMIC_ACQUIRE) != ticket) __builtin_ia32_pause();
}

static inline void TicketLockRelease(TicketLock *lock) {
  __atomic_fetch_add(&lock->now_serving, 1, __ATOMIC_RELEASE);
}
