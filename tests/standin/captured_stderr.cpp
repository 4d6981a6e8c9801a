// SPDX-License-Identifier: Apache-2.0
#include "tests/standin/captured.h"

#include <sys/mman.h>
#include <unistd.h>

namespace standin {

CapturedStderr::CapturedStderr() : m_saved(dup(2)), m_file(memfd_create("captured", 0)) {
    dup2(m_file, 2);
}

CapturedStderr::~CapturedStderr() {
    dup2(m_saved, 2);
    close(m_saved);
    close(m_file);
}

std::string CapturedStderr::text() const {
    std::string all;
    char part[4096];
    off_t place = 0;
    for (ssize_t got; (got = pread(m_file, part, sizeof part, place)) > 0; place += got)
        all.append(part, static_cast<std::size_t>(got));
    return all;
}

}  // namespace standin
