#include "backend/slapd.h"
