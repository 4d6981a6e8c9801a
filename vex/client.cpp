#include "vex/vex.h"
