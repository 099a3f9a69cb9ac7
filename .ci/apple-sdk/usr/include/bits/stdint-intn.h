// Darwin's exact-width integers: int64_t is long long there, long in glibc.
// The difference decides overloads and mangled names, so Darwin's is kept
// (the compiler's own __INT*_TYPE__ are the target's).
#ifndef _BITS_STDINT_INTN_H
#define _BITS_STDINT_INTN_H 1
typedef __INT8_TYPE__ int8_t;
typedef __INT16_TYPE__ int16_t;
typedef __INT32_TYPE__ int32_t;
typedef __INT64_TYPE__ int64_t;
#endif
