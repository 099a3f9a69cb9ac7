// The debugging macros of AssertMacros.h, which the Apple frameworks pull in
// (AppKit through CoreServices). Besides the underscored names the SDK also
// defines check, verify and require unless
// __ASSERT_MACROS_DEFINE_VERSIONS_WITHOUT_UNDERSCORES is 0, so they are
// defined here too: C++ that names a function or member check, verify or
// require after including AppKit breaks on a Mac, and must break here.
#pragma once

#define __Check(assertion) ((void)(assertion))
#define __Verify(assertion) ((void)(assertion))
#define __Require(assertion, exceptionLabel) \
  do {                                      \
    if (!(assertion)) goto exceptionLabel;  \
  } while (0)

#ifndef __ASSERT_MACROS_DEFINE_VERSIONS_WITHOUT_UNDERSCORES
#define __ASSERT_MACROS_DEFINE_VERSIONS_WITHOUT_UNDERSCORES 1
#endif

#if __ASSERT_MACROS_DEFINE_VERSIONS_WITHOUT_UNDERSCORES
#define check(assertion) __Check(assertion)
#define verify(assertion) __Verify(assertion)
#define require(assertion, exceptionLabel) __Require(assertion, exceptionLabel)
#endif
