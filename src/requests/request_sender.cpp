#include "requests/request_sender.h"
