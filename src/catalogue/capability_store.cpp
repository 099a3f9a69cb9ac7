#include "catalogue/capability_store.h"
