// SPDX-License-Identifier: Apache-2.0
// slapd's records by their names alone, for headers that only pass them on. Who reads
// one includes backend/base/slapd.h, last.
#pragma once

struct AttributeDescription;
struct AttributeName;
struct BackendDB;
struct BackendInfo;
struct Connection;
struct Entry;
struct Filter;
struct ObjectClass;
struct Operation;
struct PagedResultsState;
struct SlapReply;
struct berval;
struct config_reply_s;

using ConfigReply = config_reply_s;
