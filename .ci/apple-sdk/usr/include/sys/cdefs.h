// clang predefines __nonnull as the nullability keyword for Apple targets;
// glibc wants the name for its nonnull attribute macro.
#undef __nonnull
#include_next <sys/cdefs.h>
