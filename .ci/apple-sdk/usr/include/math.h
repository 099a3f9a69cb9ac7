// The C99 mathematical functions, each in its double, float and long double
// form. The classification macros go through the compiler's builtins.
#pragma once

#include <sys/cdefs.h>

typedef float float_t;
typedef double double_t;

#define HUGE_VAL __builtin_huge_val()
#define HUGE_VALF __builtin_huge_valf()
#define HUGE_VALL __builtin_huge_vall()
#define INFINITY __builtin_inff()
#define NAN __builtin_nanf("0x7fc00000")

#define FP_NAN 1
#define FP_INFINITE 2
#define FP_ZERO 3
#define FP_NORMAL 4
#define FP_SUBNORMAL 5
#define FP_SUPERNORMAL 6
#define FP_ILOGB0 (-2147483647 - 1)
#define FP_ILOGBNAN (-2147483647 - 1)
#define MATH_ERRNO 1
#define MATH_ERREXCEPT 2
#define math_errhandling MATH_ERREXCEPT

#define fpclassify(x) __builtin_fpclassify(FP_NAN, FP_INFINITE, FP_NORMAL, FP_SUBNORMAL, FP_ZERO, x)
#define isfinite(x) __builtin_isfinite(x)
#define isinf(x) __builtin_isinf_sign(x)
#define isnan(x) __builtin_isnan(x)
#define isnormal(x) __builtin_isnormal(x)
#define signbit(x) __builtin_signbit(x)
#define isgreater(x, y) __builtin_isgreater((x), (y))
#define isgreaterequal(x, y) __builtin_isgreaterequal((x), (y))
#define isless(x, y) __builtin_isless((x), (y))
#define islessequal(x, y) __builtin_islessequal((x), (y))
#define islessgreater(x, y) __builtin_islessgreater((x), (y))
#define isunordered(x, y) __builtin_isunordered((x), (y))

#define M_E 2.71828182845904523536028747135266250
#define M_LN2 0.693147180559945309417232121458176568
#define M_LN10 2.30258509299404568401799145468436421
#define M_PI 3.14159265358979323846264338327950288
#define M_PI_2 1.57079632679489661923132169163975144
#define M_SQRT2 1.41421356237309504880168872420969808

#define __PALVIN_MATH_1(name) double name(double); float name##f(float); long double name##l(long double);
#define __PALVIN_MATH_2(name)        \
  double name(double, double);       \
  float name##f(float, float);       \
  long double name##l(long double, long double);

__BEGIN_DECLS
__PALVIN_MATH_1(acos)
__PALVIN_MATH_1(acosh)
__PALVIN_MATH_1(asin)
__PALVIN_MATH_1(asinh)
__PALVIN_MATH_1(atan)
__PALVIN_MATH_2(atan2)
__PALVIN_MATH_1(atanh)
__PALVIN_MATH_1(cbrt)
__PALVIN_MATH_1(ceil)
__PALVIN_MATH_2(copysign)
__PALVIN_MATH_1(cos)
__PALVIN_MATH_1(cosh)
__PALVIN_MATH_1(erf)
__PALVIN_MATH_1(erfc)
__PALVIN_MATH_1(exp)
__PALVIN_MATH_1(exp2)
__PALVIN_MATH_1(expm1)
__PALVIN_MATH_1(fabs)
__PALVIN_MATH_2(fdim)
__PALVIN_MATH_1(floor)
__PALVIN_MATH_2(fmax)
__PALVIN_MATH_2(fmin)
__PALVIN_MATH_2(fmod)
__PALVIN_MATH_2(hypot)
__PALVIN_MATH_1(lgamma)
__PALVIN_MATH_1(log)
__PALVIN_MATH_1(log10)
__PALVIN_MATH_1(log1p)
__PALVIN_MATH_1(log2)
__PALVIN_MATH_1(logb)
__PALVIN_MATH_1(nearbyint)
__PALVIN_MATH_2(nextafter)
__PALVIN_MATH_2(pow)
__PALVIN_MATH_2(remainder)
__PALVIN_MATH_1(rint)
__PALVIN_MATH_1(round)
__PALVIN_MATH_1(sin)
__PALVIN_MATH_1(sinh)
__PALVIN_MATH_1(sqrt)
__PALVIN_MATH_1(tan)
__PALVIN_MATH_1(tanh)
__PALVIN_MATH_1(tgamma)
__PALVIN_MATH_1(trunc)

double fma(double, double, double);
float fmaf(float, float, float);
long double fmal(long double, long double, long double);
double frexp(double, int*);
float frexpf(float, int*);
long double frexpl(long double, int*);
int ilogb(double);
int ilogbf(float);
int ilogbl(long double);
double ldexp(double, int);
float ldexpf(float, int);
long double ldexpl(long double, int);
long long llrint(double);
long long llrintf(float);
long long llrintl(long double);
long long llround(double);
long long llroundf(float);
long long llroundl(long double);
long lrint(double);
long lrintf(float);
long lrintl(long double);
long lround(double);
long lroundf(float);
long lroundl(long double);
double modf(double, double*);
float modff(float, float*);
long double modfl(long double, long double*);
double nan(const char*);
float nanf(const char*);
long double nanl(const char*);
double nexttoward(double, long double);
float nexttowardf(float, long double);
long double nexttowardl(long double, long double);
double remquo(double, double, int*);
float remquof(float, float, int*);
long double remquol(long double, long double, int*);
double scalbln(double, long);
float scalblnf(float, long);
long double scalblnl(long double, long);
double scalbn(double, int);
float scalbnf(float, int);
long double scalbnl(long double, int);
__END_DECLS

#undef __PALVIN_MATH_1
#undef __PALVIN_MATH_2
