// The name expressions of a directory listing (MS-FSA 2.1.4.4): '*', '?' and the forms that stand for the
// wildcards of DOS, '<', '>' and '"'. Immutable, so any thread may match.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fodr::ntposix {

class NamePattern {
public:
    // Matches every name.
    NamePattern() = default;
    // None when the expression is longer than any that could be meant.
    [[nodiscard]] static std::optional<NamePattern> Compile(std::u16string_view expression);

    // Without case. The time is bounded by the product of the lengths, whatever the expression.
    [[nodiscard]] bool Matches(std::u16string_view name) const;
    // Whether it is a plain name, which at most a few entries of a directory have.
    bool IsExact() const { return kind == Kind::Exact; }
    // As it was given, for a plain name.
    std::u16string_view ExactName() const { return text; }

private:
    enum class Kind { All, Exact, Dotted, Tail, General };

    Kind kind = Kind::All;
    std::u16string text; // an exact name, the tail behind '*', or the whole expression
};

} // namespace fodr::ntposix
