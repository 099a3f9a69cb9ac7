// Darwin's exact-width unsigned integers; see stdint-intn.h.
#ifndef _BITS_STDINT_UINTN_H
#define _BITS_STDINT_UINTN_H 1
typedef __UINT8_TYPE__ uint8_t;
typedef __UINT16_TYPE__ uint16_t;
typedef __UINT32_TYPE__ uint32_t;
typedef __UINT64_TYPE__ uint64_t;
#endif
