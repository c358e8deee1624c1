// What the command says to people. Any thread.
#pragma once

#include <string>

namespace fodr::cli {

// One line on standard error that begins "fodr: ".
void Complain(const std::string &sentence);

// One line on standard output, at once.
void Say(const std::string &line);

// A passing remark about what is being waited for, on a terminal only; the next line of any kind, or an empty
// remark, replaces it.
void ShowProgress(const std::string &remark);

// For the middle of a sentence: without a "fodr: " in front, a full stop and line ends behind, and without
// characters that a terminal would obey.
std::string Plain(const std::string &text);

} // namespace fodr::cli
