// SPDX-License-Identifier: Apache-2.0
// Two connected sockets, for tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "vorn/descriptor.h"

namespace vexagent {

struct SocketPair {
    SocketPair() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ours = vorn::Descriptor(ends[0]);
        theirs = vorn::Descriptor(ends[1]);
    }
    vorn::Descriptor ours{-1};
    vorn::Descriptor theirs{-1};
};

}  // namespace vexagent
