// A failed assertion calls __assert_rtn with the function, file, line and
// expression. Not guarded: each inclusion follows the NDEBUG of its point.
#include <sys/cdefs.h>

#undef assert
#ifdef NDEBUG
#define assert(e) ((void)0)
#else
__BEGIN_DECLS
void __assert_rtn(const char*, const char*, int, const char*) __dead2 __cold __disable_tail_calls;
__END_DECLS
#define assert(e) (__builtin_expect(!(e), 0) ? __assert_rtn(__func__, __FILE__, __LINE__, #e) : (void)0)
#endif

#if !defined(__cplusplus) && defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define static_assert _Static_assert
#endif
