#include "lib/desktop/vesk-locale.h"
