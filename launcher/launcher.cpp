#include "launcher/launcher.h"
