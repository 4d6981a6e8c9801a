// The module's two ways to say something. Callable from any thread, with no
// set-up. A line is cut at 1021 characters.
#pragma once

// Information: to the channel "dirgate", and to standard error when slapd's debug
// level is not 0. Costs a look at the channel's thresholds when nobody listens;
// formatted only when the line goes somewhere.
void JPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// An error: to the channel, and always to standard error.
void JError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Whether a JPrintf would go anywhere now: for callers whose arguments cost
// something to make.
bool JPrintfEnabled();
