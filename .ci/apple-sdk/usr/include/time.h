// Time: struct tm with Darwin's tm_gmtoff and tm_zone, timespec, clocks.
#pragma once

#include <os/availability.h>
#include <sys/_types.h>
#include <sys/cdefs.h>
#include <sys/types.h>

struct timespec {
  __darwin_time_t tv_sec;
  long tv_nsec;
};

struct tm {
  int tm_sec;
  int tm_min;
  int tm_hour;
  int tm_mday;
  int tm_mon;
  int tm_year;
  int tm_wday;
  int tm_yday;
  int tm_isdst;
  long tm_gmtoff;
  char* tm_zone;
};

#define CLOCKS_PER_SEC 1000000
#define TIME_UTC 1

typedef enum {
  _CLOCK_REALTIME = 0,
  _CLOCK_MONOTONIC_RAW = 4,
  _CLOCK_MONOTONIC_RAW_APPROX = 5,
  _CLOCK_MONOTONIC = 6,
  _CLOCK_UPTIME_RAW = 8,
  _CLOCK_UPTIME_RAW_APPROX = 9,
  _CLOCK_PROCESS_CPUTIME_ID = 12,
  _CLOCK_THREAD_CPUTIME_ID = 16
} clockid_t;
#define CLOCK_REALTIME _CLOCK_REALTIME
#define CLOCK_MONOTONIC _CLOCK_MONOTONIC
#define CLOCK_MONOTONIC_RAW _CLOCK_MONOTONIC_RAW
#define CLOCK_UPTIME_RAW _CLOCK_UPTIME_RAW
#define CLOCK_PROCESS_CPUTIME_ID _CLOCK_PROCESS_CPUTIME_ID
#define CLOCK_THREAD_CPUTIME_ID _CLOCK_THREAD_CPUTIME_ID

__BEGIN_DECLS
char* asctime(const struct tm*);
clock_t clock(void);
char* ctime(const time_t*);
double difftime(time_t, time_t);
struct tm* gmtime(const time_t*);
struct tm* localtime(const time_t*);
time_t mktime(struct tm*);
size_t strftime(char* __restrict, size_t, const char* __restrict, const struct tm* __restrict);
time_t time(time_t*);

struct tm* gmtime_r(const time_t* __restrict, struct tm* __restrict);
struct tm* localtime_r(const time_t* __restrict, struct tm* __restrict);
char* strptime(const char* __restrict, const char* __restrict, struct tm* __restrict);
time_t timegm(struct tm*);
void tzset(void);
int nanosleep(const struct timespec*, struct timespec*);
int clock_getres(clockid_t, struct timespec*) API_AVAILABLE(macos(10.12));
int clock_gettime(clockid_t, struct timespec*) API_AVAILABLE(macos(10.12));
__uint64_t clock_gettime_nsec_np(clockid_t) API_AVAILABLE(macos(10.12));
int timespec_get(struct timespec*, int) API_AVAILABLE(macos(10.15));
__END_DECLS
