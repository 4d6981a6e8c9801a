#include "vorn/strings.h"
