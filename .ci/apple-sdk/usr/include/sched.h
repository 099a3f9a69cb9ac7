// Scheduling.
#pragma once

#include <sys/cdefs.h>

struct sched_param {
  int sched_priority;
  char __opaque[4];
};

__BEGIN_DECLS
int sched_yield(void);
int sched_get_priority_min(int);
int sched_get_priority_max(int);
__END_DECLS
