#include "launcher/notify-adapter.h"
