// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/peer.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

std::string parsed(const std::string& text) {
    const auto peer = parsePeer(text, 389);
    return peer ? peer->host + " " + std::to_string(peer->port) : "none";
}

TEST(Peer, IsAHostAndPerhapsAPort) {
    const std::pair<const char*, const char*> cases[] = {
        {"dc1.example.com", "dc1.example.com 389"},
        {"dc1.example.com:1389", "dc1.example.com 1389"},
        {"127.0.0.1", "127.0.0.1 389"},
        {"127.0.0.1:65535", "127.0.0.1 65535"},
        {"::1", "::1 389"},
        {"[::1]", "::1 389"},
        {"[::1]:3268", "::1 3268"},
        {"", "none"},
        {":389", "none"},
        {"dc1:", "none"},
        {"dc1:0", "none"},
        {"dc1:65536", "none"},
        {"dc1:12x", "none"},
        {"[::1]x", "none"},
        {"[::1]:", "none"},
        {"[]:389", "none"},
        {"ldap://dc1", "none"},
        {"user@dc1", "none"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parsed(text), expected) << text;
}

}  // namespace
}  // namespace vexagent
