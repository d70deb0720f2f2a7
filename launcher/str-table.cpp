#include "launcher/str-table.h"
