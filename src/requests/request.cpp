#include "requests/request.h"
