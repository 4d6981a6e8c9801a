// SPDX-License-Identifier: Apache-2.0
// Filters in the agent's terms, put together in a normal form.
//
// One is nothing (no object of a kind), all of them, or a text. Elements of an AND and of an
// OR are in order and different from one another, and none is an AND or OR of the same sort.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace standard {

class AgentFilter {
  public:
    enum class Operator : char { And = '&', Or = '|' };

    static AgentFilter nothing() { return AgentFilter(Operator::Or); }
    static AgentFilter all() { return AgentFilter(Operator::And); }
    // A whole filter, taken as it is.
    static AgentFilter of(std::string text);
    // (NAME=*)
    static AgentFilter presence(std::string_view name);
    // (NAME=VALUE), with every byte escaped that could mean something else.
    static AgentFilter equality(std::string_view name, std::string_view value);
    // (NAME:RULE:=VALUE), likewise.
    static AgentFilter byRule(std::string_view name, std::string_view rule, std::string_view value);
    // (NAME=VALUE) with every byte by its number, for values that are no text.
    static AgentFilter ofBytes(std::string_view name, std::string_view bytes);
    static AgentFilter combine(Operator sign, const std::vector<AgentFilter>& parts);

    bool isNothing() const { return m_elements.empty() && m_operator == Operator::Or; }
    bool isAll() const { return m_elements.empty() && m_operator == Operator::And; }

    // Neither for nothing nor for all.
    std::string text() const;
    // This and a further condition, a whole filter, which comes first; not for nothing.
    std::string textWith(std::string_view condition) const;

  private:
    explicit AgentFilter(Operator sign) : m_operator(sign) {}
    void take(const AgentFilter& part);

    // An AND of none is all, and an OR of none is nothing.
    Operator m_operator;
    std::vector<std::string> m_elements;
};

// A text value with what may stand before, in and behind it, for a filter that finds at least
// the values that equal it by a rule of LDAP. The agent may have blanks and what is not ASCII
// in another form (composed or not, wide or not), so each run of these may be anything. Blanks
// at a stored value's ends, and characters that a rule takes for ASCII, are the agent's to know.
class TextPattern {
  public:
    enum class Case { Folded, Kept };  // whether letters of either case mean the same

    explicit TextPattern(Case inCase) : m_case(inCase) {}

    void append(std::string_view value);
    void appendAnything();

    // (NAME=PATTERN)
    AgentFilter of(std::string_view name) const;

    // Whether it has a letter that stands for that of the other case too.
    bool hasFoldedLetters() const { return m_hasFoldedLetters; }

  private:
    void appendCharacter(char c);

    const Case m_case;
    bool m_hasFoldedLetters = false;
    std::string m_text;
};

}  // namespace standard
