// SPDX-License-Identifier: Apache-2.0
// The back-end's frame: what slapd calls.
//
// Each hook returns an int, 0 for success; which record field it is installed in
// stands beside it. Configuration, initialisation and destroy run alone, before
// or after all operations; bind, search and the closing of connections run
// concurrently on slapd's worker threads.
#pragma once

#include "backend/base/settings.h"

#include "backend/base/slapd_fwd.h"

// The module's entry: registers the back-end type "zanthedx".
extern "C" int init_module(int argc, char* argv[]);

int vex_back_initialize(BackendInfo* bi);                 // bi_init: installs the hooks, makes the managers
// Installs the hooks of the one mode or the other. What the standard mode alone has is
// empty without it, so that slapd itself answers.
void installHooks(BackendInfo* bi, bool standard);

int vex_back_db_init(BackendDB* be, ConfigReply* reply);  // bi_db_init
int vex_back_destroy(BackendDB* be, ConfigReply* reply);  // bi_db_destroy: ends everything
int vex_conn_destroy(BackendDB* be, Connection* connection);  // bi_connection_destroy

// Would list all of slapd's controls as this back-end's. Deliberately not
// installed: which controls a client may mark critical is the business of
// slapd and of "dirgate.paged.critical".
int vex_back_open(BackendInfo* bi);

// A directive of a "backend zanthedx" section (bi_config). 0: accepted, or not
// one of the module's; 1: refused, after a complaint that names file and line.
int vex_back_config(BackendInfo* bi, const char* fileName, int line, int argc, char** argv);

// A directive of a "database zanthedx" section (bi_db_config): the same, but a
// name that is not the module's and belongs to a loaded overlay is passed on.
int vex_back_db_config(BackendDB* be, const char* fileName, int line, int argc, char** argv);
