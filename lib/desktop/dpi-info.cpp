#include "lib/desktop/dpi-info.h"
