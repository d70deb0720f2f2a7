#include "log/log.h"
