// SPDX-License-Identifier: Apache-2.0
// What the agent is asked for a client's filter.
//
// The agent's rules of comparison are not the client's, and an object is not yet the entry
// that is made of it. So the agent is asked for more than is wanted, and never for less:
// each entry is tested against the client's own filter before it is sent.
//
//     questionOf(filter, kinds, resolve)   // of (|(uid=ann)(mail=a@x))
//     "(|(&(objectClass=user)(|(mail=a@x)(sAMAccountName=ann)))(&(objectClass=group)(mail=a@x)))"
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "standard/kinds.h"
#include "vorn/expected.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// What a client's filter may have.
inline constexpr std::size_t kMostLevels = 64;
inline constexpr std::size_t kMostAssertions = 4096;
inline constexpr std::size_t kMostFilterBytes = std::size_t{1} << 20;  // of names and values

enum class QuestionRefusal { TooDeep, TooManyAssertions, TooLong };

// Where an attribute is asserted to equal a value: the agent's filter, a whole one, that
// finds at least the objects whose entries have the value; empty text if there can be none;
// nothing if it cannot be told. Asked about attributes that are compared as DNs, about those
// without a source, and about memberUid. The value is slapd's normal form of it.
using Resolver = std::function<std::optional<std::string>(const Kind& kind, const ShownAttribute& attribute,
                                                          std::string_view value)>;

// The agent's filter that finds every object whose entry the filter is TRUE for (RFC 4511,
// 4.5.1.7), and perhaps others. It has the condition of each kind that can match, in the
// order of the kinds. Empty: no entry can match, nobody is to be asked. Filters that differ
// in the order of elements, in repetitions and in nesting have the same text.
//
// Its size is one that the agent takes. Where all of the filter would be too much, it is
// the conditions of the kinds alone.
//
// A null filter is TRUE for all. Throws only what the resolver throws. Any thread.
vorn::Expected<std::string, QuestionRefusal> questionOf(const Filter* filter, const Kinds& kinds,
                                                        const Resolver& resolve);

}  // namespace standard
