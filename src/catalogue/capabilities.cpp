#include "catalogue/capabilities.h"
