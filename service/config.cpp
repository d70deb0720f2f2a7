#include "service/config.h"
