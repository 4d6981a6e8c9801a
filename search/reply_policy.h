// SPDX-License-Identifier: Apache-2.0
// What a client is told of a search: the answers to what happens in it.
//
// The steps of a search and the reply's bookkeeping (search/reply.h) say what happened;
// which results that makes, with which codes and controls and how often each is sent, is
// decided here and nowhere else.
#pragma once

#include "search/handles.h"
#include "search/request.h"
#include "vex/vex.h"

#include "backend/base/slapd_fwd.h"

// A call to the agent that failed.
struct Failure {
    enum class In {
        Opening,  // nothing has been found yet
        Object,   // one of the objects could not be had as a whole
        Objects,  // they ended, although the directory may have more
    };

    vexSession* session;  // that it failed in; null without one
    const char* context;  // begins the text: the call's name and a blank
    vexCode code;
    In in;
};

// One for each request. The calls come in the order of what they tell; end is the last
// one, and does not come when a page's search stays open.
class ReplyPolicy {
  public:
    virtual ~ReplyPolicy() = default;

    // The request ends before any object is asked for.
    virtual void rejected(const Rejection& why) = 0;

    // The agent, or the cache, has answered: its objects follow. What the page before has
    // left over comes before this.
    virtual void objectsFollow() = 0;

    // An entry, and which of its attributes were asked for (null: all). False when it
    // could not be sent: then the search is over.
    virtual bool entry(Entry* entry, AttributeName* attributes) = 0;

    // A limit's result code: the search is over.
    virtual void limit(int result) = 0;

    // Nobody waits for more.
    virtual void abandoned() = 0;

    // Whether the search goes on as if it had found all that there is.
    virtual bool failed(const Failure& failure) = 0;

    // A page is full, or the objects of one have come to their end; page holds the entry
    // that is left over, if one is. True when the client has been given a cookie: the
    // page is then the registry's.
    virtual bool pageEnds(OpenPage* page) = 0;

    // The request is over.
    virtual void end() = 0;
};
