#include "backend/settings.h"
