#include "service/cloud-service.h"
