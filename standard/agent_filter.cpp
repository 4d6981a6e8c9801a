// SPDX-License-Identifier: Apache-2.0
#include "standard/agent_filter.h"

#include <algorithm>
#include <utility>

#include "vorn/escape.h"
#include "vorn/strings.h"

namespace standard {
namespace {

// A blank, what some rules take for one, or a part of a character outside ASCII.
bool mayDiffer(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r') || static_cast<unsigned char>(c) >= 0x80;
}

// The first byte, in UTF-8, of a mark that makes one character with the letter before it.
bool beginsMark(char c) {
    return c == '\xcc' || c == '\xcd';
}

std::string item(std::string_view name, std::string_view value) {
    std::string text = "(";
    text.append(name).append("=").append(value).append(")");
    return text;
}

}  // namespace

AgentFilter AgentFilter::of(std::string text) {
    AgentFilter result(Operator::And);
    result.m_elements.push_back(std::move(text));
    return result;
}

AgentFilter AgentFilter::presence(std::string_view name) {
    return of(item(name, "*"));
}

AgentFilter AgentFilter::equality(std::string_view name, std::string_view value) {
    std::string escaped;
    vorn::appendFilterValue(&escaped, value);
    return of(item(name, escaped));
}

AgentFilter AgentFilter::byRule(std::string_view name, std::string_view rule, std::string_view value) {
    const std::string described = std::string(name) + ":" + std::string(rule) + ":";
    return equality(described, value);
}

AgentFilter AgentFilter::ofBytes(std::string_view name, std::string_view bytes) {
    std::string escaped;
    for (const char c : bytes) escaped.append(vorn::EscapedByte(c));
    return of(item(name, escaped));
}

AgentFilter AgentFilter::combine(Operator sign, const std::vector<AgentFilter>& parts) {
    std::vector<const AgentFilter*> counting;  // all but those that change nothing
    for (const AgentFilter& part : parts) {
        if (!part.m_elements.empty())
            counting.push_back(&part);
        else if (part.m_operator != sign)
            return part;  // decides alone: nothing in an AND, all in an OR
    }
    if (counting.size() == 1) return *counting.front();
    AgentFilter result(sign);
    for (const AgentFilter* part : counting) result.take(*part);
    std::vector<std::string>& elements = result.m_elements;
    std::sort(elements.begin(), elements.end());
    elements.erase(std::unique(elements.begin(), elements.end()), elements.end());
    // Equal parts are one part, which may be a list of the other sort.
    return elements.size() == 1 ? *counting.front() : result;
}

void AgentFilter::take(const AgentFilter& part) {
    if (part.m_operator == m_operator || part.m_elements.size() == 1)
        m_elements.insert(m_elements.end(), part.m_elements.begin(), part.m_elements.end());
    else
        m_elements.push_back(part.text());
}

std::string AgentFilter::text() const {
    if (m_elements.size() == 1) return m_elements.front();
    std::string result = {'(', static_cast<char>(m_operator)};
    for (const std::string& element : m_elements) result += element;
    return result += ')';
}

std::string AgentFilter::textWith(std::string_view condition) const {
    if (isAll()) return std::string(condition);
    std::string result = "(&";
    result += condition;
    if (m_operator == Operator::Or) return result += text() + ')';
    for (const std::string& element : m_elements) result += element;
    return result += ')';
}

void TextPattern::append(std::string_view value) {
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (mayDiffer(c) || (i + 1 < value.size() && beginsMark(value[i + 1])))
            appendAnything();
        else
            appendCharacter(m_case == Case::Folded ? vorn::lower(c) : c);
    }
}

void TextPattern::appendCharacter(char c) {
    vorn::appendFilterValue(&m_text, {&c, 1});
    if (m_case == Case::Folded && c >= 'a' && c <= 'z') m_hasFoldedLetters = true;
}

void TextPattern::appendAnything() {
    if (!m_text.ends_with('*')) m_text += '*';
}

AgentFilter TextPattern::of(std::string_view name) const {
    return AgentFilter::of(item(name, m_text.empty() ? "*" : m_text));
}

}  // namespace standard
