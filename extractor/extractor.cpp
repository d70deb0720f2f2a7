#include "extractor/extractor.h"
