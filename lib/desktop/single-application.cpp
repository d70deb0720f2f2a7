#include "lib/desktop/single-application.h"
