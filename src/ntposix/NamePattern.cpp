#include "ntposix/NamePattern.h"

#include "lib/unicode/CaseFolding.h"

#include <array>
#include <utility>

namespace fodr::ntposix {

namespace {

constexpr std::u16string_view kWildcards = u"*?<>\"";
constexpr size_t kLongest = 1024; // four times a name
using States = std::array<bool, kLongest + 1>;

// One step for every place of the expression that the name read so far may have led to. A place that can be
// left without reading anything marks the next one of the same step, which the loop meets after it.
void Step(std::u16string_view expression, char16_t unit, bool finalDot, States &current, States &next)
{
    const bool dot = unit == u'.';
    for (size_t i = 0; i < expression.size(); ++i) {
        if (!current[i])
            continue;
        switch (expression[i]) {
        case u'*':
            next[i] = true;
            current[i + 1] = true;
            break;
        case u'<': // as '*', but not across the last dot of the name
            next[i] |= !finalDot;
            current[i + 1] = true;
            break;
        case u'>': // one unit, or nothing before a dot
            (dot ? current : next)[i + 1] = true;
            break;
        case u'"':
            next[i + 1] |= dot;
            break;
        case u'?':
            next[i + 1] = true;
            break;
        default:
            next[i + 1] |= FoldUnit(unit) == FoldUnit(expression[i]);
        }
    }
}

// At the end of the name every wildcard but '?' stands for nothing.
bool CanEnd(std::u16string_view expression, const States &current)
{
    for (size_t i = expression.size();; --i) {
        if (current[i])
            return true;
        if (i == 0 || expression[i - 1] == u'?' || kWildcards.find(expression[i - 1]) == kWildcards.npos)
            return false;
    }
}

bool MatchesGeneral(std::u16string_view expression, std::u16string_view name)
{
    States rows[2];
    States *current = &rows[0], *next = &rows[1];
    std::fill_n(current->begin(), expression.size() + 1, false);
    (*current)[0] = true;
    const size_t finalDot = name.rfind(u'.');
    for (size_t i = 0; i < name.size(); ++i) {
        std::fill_n(next->begin(), expression.size() + 1, false);
        Step(expression, name[i], i == finalDot, *current, *next);
        std::swap(current, next);
    }
    return CanEnd(expression, *current);
}

} // namespace

std::optional<NamePattern> NamePattern::Compile(std::u16string_view expression)
{
    NamePattern pattern;
    for (const char16_t unit : expression) {
        if (unit != u'*' || pattern.text.empty() || pattern.text.back() != u'*')
            pattern.text.push_back(unit);
    }
    const size_t wildcard = pattern.text.find_first_of(kWildcards);
    if (pattern.text.size() > kLongest)
        return std::nullopt;
    if (wildcard == std::u16string::npos) {
        pattern.kind = pattern.text.empty() ? Kind::All : Kind::Exact;
    } else if (pattern.text == u"*") {
        pattern.kind = Kind::All;
    } else if (pattern.text == u"*.*") {
        pattern.kind = Kind::Dotted;
    } else if (pattern.text[0] == u'*' && pattern.text.find_first_of(kWildcards, 1) == std::u16string::npos) {
        pattern.kind = Kind::Tail;
        pattern.text.erase(0, 1);
    } else {
        pattern.kind = Kind::General;
    }
    return pattern;
}

bool NamePattern::Matches(std::u16string_view name) const
{
    switch (kind) {
    case Kind::All:
        return true;
    case Kind::Exact:
        return EqualsFolded(name, text);
    case Kind::Dotted:
        return name.find(u'.') != name.npos;
    case Kind::Tail:
        return name.size() >= text.size() && EqualsFolded(name.substr(name.size() - text.size()), text);
    case Kind::General:
        break;
    }
    return MatchesGeneral(text, name);
}

} // namespace fodr::ntposix
