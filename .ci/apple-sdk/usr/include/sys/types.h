// The POSIX and BSD types.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/_types.h>

typedef unsigned char u_char;
typedef unsigned short u_short;
typedef unsigned int u_int;
typedef unsigned long u_long;
typedef __uint8_t u_int8_t;
typedef __uint16_t u_int16_t;
typedef __uint32_t u_int32_t;
typedef __uint64_t u_int64_t;
typedef char* caddr_t;

typedef __darwin_blkcnt_t blkcnt_t;
typedef __darwin_blksize_t blksize_t;
typedef __darwin_clock_t clock_t;
typedef __darwin_dev_t dev_t;
typedef __darwin_gid_t gid_t;
typedef __darwin_id_t id_t;
typedef __darwin_ino_t ino_t;
typedef __darwin_mode_t mode_t;
typedef __uint16_t nlink_t;
typedef __darwin_off_t off_t;
typedef __darwin_pid_t pid_t;
typedef __darwin_ssize_t ssize_t;
typedef __darwin_suseconds_t suseconds_t;
typedef __darwin_time_t time_t;
typedef __darwin_uid_t uid_t;
typedef __darwin_useconds_t useconds_t;

typedef __darwin_pthread_attr_t pthread_attr_t;
typedef __darwin_pthread_cond_t pthread_cond_t;
typedef __darwin_pthread_condattr_t pthread_condattr_t;
typedef __darwin_pthread_key_t pthread_key_t;
typedef __darwin_pthread_mutex_t pthread_mutex_t;
typedef __darwin_pthread_mutexattr_t pthread_mutexattr_t;
typedef __darwin_pthread_once_t pthread_once_t;
typedef __darwin_pthread_rwlock_t pthread_rwlock_t;
typedef __darwin_pthread_rwlockattr_t pthread_rwlockattr_t;
typedef __darwin_pthread_t pthread_t;
