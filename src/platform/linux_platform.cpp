#include "platform/linux_platform.h"
