#include "translate/map.h"
