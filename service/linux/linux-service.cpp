#include "service/linux/linux-service.h"
