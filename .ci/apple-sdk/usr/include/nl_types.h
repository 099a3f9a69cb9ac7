// Message catalogues, which libc++'s messages facet uses.
#pragma once

#include <sys/cdefs.h>

#define NL_SETD 1
#define NL_CAT_LOCALE 1

typedef struct __nl_cat_d {
  void* __data;
  int __size;
} * nl_catd;
typedef int nl_item;

__BEGIN_DECLS
nl_catd catopen(const char*, int);
char* catgets(nl_catd, int, int, const char*);
int catclose(nl_catd);
__END_DECLS
