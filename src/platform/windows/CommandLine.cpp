#include "platform/windows/CommandLine.h"

#include "platform/windows/WideText.h"
#include "platform/windows/Win32.h"

#include <map>

namespace fodr::platform {

namespace {

struct LessWithoutCase {
    bool operator()(const std::wstring &a, const std::wstring &b) const
    {
        return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(),
                                    static_cast<int>(b.size()), TRUE) == CSTR_LESS_THAN;
    }
};

// Backslashes only count before a quote, where each needs another one.
void AppendQuoted(const std::wstring &word, std::wstring *line)
{
    if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        *line += word;
        return;
    }
    size_t backslashes = 0;
    line->push_back(L'"');
    for (const wchar_t c : word) {
        if (c == L'\\') {
            ++backslashes;
        } else {
            if (c == L'"')
                line->append(backslashes + 1, L'\\');
            backslashes = 0;
        }
        line->push_back(c);
    }
    line->append(backslashes, L'\\');
    line->push_back(L'"');
}

} // namespace

bool JoinArguments(const std::vector<std::string> &arguments, std::wstring *line)
{
    line->clear();
    for (const std::string &argument : arguments) {
        std::wstring word;
        if (!Widen(argument, word))
            return false;
        if (!line->empty())
            line->push_back(L' ');
        AppendQuoted(word, line);
    }
    return true;
}

bool MakeEnvironment(const std::vector<std::pair<std::string, std::string>> &additions, std::wstring *block)
{
    std::map<std::wstring, std::wstring, LessWithoutCase> values; // in the order that a block has to have
    wchar_t *own = GetEnvironmentStringsW();
    for (const wchar_t *entry = own; entry && *entry; entry += std::wstring_view(entry).size() + 1) {
        const std::wstring_view text(entry);
        const size_t equals = text.find(L'=', 1); // names of current folders begin with one
        if (equals != std::wstring_view::npos)
            values[std::wstring(text.substr(0, equals))] = text.substr(equals + 1);
    }
    FreeEnvironmentStringsW(own);
    for (const auto &[name, value] : additions) {
        std::wstring wideName;
        std::wstring wideValue;
        if (!Widen(name, wideName) || !Widen(value, wideValue))
            return false;
        values[wideName] = wideValue;
    }
    block->clear();
    for (const auto &[name, value] : values)
        *block += name + L'=' + value + L'\0';
    block->push_back(L'\0');
    return true;
}

} // namespace fodr::platform
