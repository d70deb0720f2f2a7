#include "lib/file/file-op.h"
