#include "planner/display_order.h"
