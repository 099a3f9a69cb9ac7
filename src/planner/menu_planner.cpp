#include "planner/menu_planner.h"
