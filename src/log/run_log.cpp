#include "log/run_log.h"
