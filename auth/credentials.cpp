#include "auth/credentials.h"
