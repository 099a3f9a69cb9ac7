// The integer types every Objective-C interface uses.
#pragma once

#include <objc/objc.h>

typedef long NSInteger;
typedef unsigned long NSUInteger;
