// SPDX-License-Identifier: Apache-2.0
// Telling an LDAP client why the agent failed.
#pragma once

#include "vex/vex.h"

#include "backend/base/slapd_fwd.h"

// The thread's buffer for a failure's text, of that many bytes: the reply points into it
// until it is sent. A thread works on one request at a time, so no client sees another's.
inline constexpr int kFailureTextBytes = 512;
char* failureText();

// What a client is told, with result 51, whose request had no turn at the agent.
inline constexpr char kTooManyWaitText[] = "vex dirgate: too many requests wait for the agent";

// Finds out why a call to the agent failed (a broken session, an unhealthy
// agent, wrong credentials, or the directory's own error). kTooManyWait is a
// reason of its own. Returns the LDAP result, and writes the text.
//
// context begins the text: the failing call's name and a blank. code is what it
// answered. text and size name the caller's buffer.
int explainFailure(vexSession* session, const char* context, vexCode code, int size, char* text);

// The same; logs it and sends the LDAP result, exactly one. The reply's text
// points into the buffer, so it must live until the result is sent.
void send_vex_err_info(vexSession* session, const char* context, vexCode code, int size, char* text,
                       Operation* op, SlapReply* rs);
