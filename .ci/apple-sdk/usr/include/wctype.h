// Wide character classes; wctype_t is a class mask, as in ctype.h.
#pragma once

#include <sys/_types.h>
#include <sys/cdefs.h>

typedef __darwin_wint_t wint_t;
typedef __darwin_wctype_t wctype_t;
typedef int wctrans_t;
#ifndef WEOF
#define WEOF ((wint_t)-1)
#endif

__BEGIN_DECLS
int iswalnum(wint_t);
int iswalpha(wint_t);
int iswblank(wint_t);
int iswcntrl(wint_t);
int iswctype(wint_t, wctype_t);
int iswdigit(wint_t);
int iswgraph(wint_t);
int iswlower(wint_t);
int iswprint(wint_t);
int iswpunct(wint_t);
int iswspace(wint_t);
int iswupper(wint_t);
int iswxdigit(wint_t);
wint_t towctrans(wint_t, wctrans_t);
wint_t towlower(wint_t);
wint_t towupper(wint_t);
wctrans_t wctrans(const char*);
wctype_t wctype(const char*);
__END_DECLS
