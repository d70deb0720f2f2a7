#include "lib/desktop/ui-path-manager.h"
