#include "log/tmp-name-gen.h"
