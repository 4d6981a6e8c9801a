// SPDX-License-Identifier: Apache-2.0
// How the system's errors become reasons for refusing a file.
#pragma once

#include "vorn/secure_file.h"

namespace vorn {

// Never None.
FileRefusal refusalFromErrno(int error);

}  // namespace vorn
