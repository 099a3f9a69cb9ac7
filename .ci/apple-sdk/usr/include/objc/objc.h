// The Objective-C runtime's basic types, as the runtime reference documents
// them. id, Class and SEL are built into the compiler.
#pragma once

// BOOL is a signed char on x86_64 and a bool on arm64, so code that stores
// anything but YES or NO in one behaves differently on the two; the objects
// are compiled for both.
#if defined(__x86_64__)
typedef signed char BOOL;
#else
typedef bool BOOL;
#endif

#define YES __objc_yes
#define NO __objc_no

#ifndef nil
#if defined(__cplusplus)
#define nil nullptr
#else
#define nil ((void*)0)
#endif
#endif

#if defined(__cplusplus)
#define OBJC_EXPORT extern "C"
#else
#define OBJC_EXPORT extern
#endif
