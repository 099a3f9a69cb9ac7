#include "catalogue/capabilities_check.h"
