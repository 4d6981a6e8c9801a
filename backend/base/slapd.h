// SPDX-License-Identifier: Apache-2.0
// slapd's own headers, contained.
//
// slap.h defines thousands of macros, some under names that C++ code uses. So
// only files that touch slapd's records include this header, and they include it
// last. The sizes below are those of the packaged binary: with other record
// layouts the module would read and write the wrong bytes of a running server.
#pragma once

// The standard headers that slapd's own include are included outside of the
// extern "C" block, where their C++ parts belong.
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

// slap.h would define free, malloc and kin as errors without it.
#define CH_FREE 1

extern "C" {
#include "portable.h"

#include "slap.h"

#include "lutil.h"

// libldap's own log, which it exports without a public declaration.
int ldap_log_printf(LDAP* ld, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
}

// Macros that would rewrite C++ code of the files that include this header.
#undef min
#undef max
#undef Debug
#undef Log
#undef LogTest

static_assert(sizeof(Operation) == 384);
static_assert(sizeof(SlapReply) == 112);
static_assert(sizeof(Connection) == 664);
static_assert(sizeof(BackendInfo) == 480);
static_assert(sizeof(BackendDB) == 416);
static_assert(sizeof(Opheader) == 336);
static_assert(sizeof(Entry) == 80);
static_assert(sizeof(Attribute) == 40);
static_assert(sizeof(Filter) == 24);
