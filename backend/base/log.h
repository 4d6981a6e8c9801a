// SPDX-License-Identifier: Apache-2.0
// The module's two ways to say something. Callable from any thread, with no
// set-up. What is put into a line is escaped, so that it can neither end it nor begin
// another one (see vorn/log_text.h); then the line is cut at 1021 characters.
#pragma once

#include <string>
#include <string_view>

// Information: to the channel "dirgate", and to standard error when slapd's debug
// level is not 0. Costs a look at the channel's thresholds when nobody listens;
// formatted only when the line goes somewhere.
void JPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// An error: to the channel, and always to standard error.
void JError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// As JPrintf, with a text of several lines, such as LDIF, behind the introduction: its
// line ends stay.
void JPrintfLines(const char* introduction, std::string_view lines);

// A filter as lines show it, what it asserts of secrets hidden. Costs nothing when
// nobody listens; then it is empty.
std::string filterForLog(const std::string& filter);

// Whether a JPrintf would go anywhere now: for callers whose arguments cost
// something to make.
bool JPrintfEnabled();
