// Which local directory a drive letter stands for. That is decided elsewhere; who decides it registers here.
#pragma once

#include <string>

namespace fodr::ntposix {

// The path without a separator at its end ("/" for the root), empty for a letter that stands for nothing. May
// be called from any thread at once.
using DriveLetterResolver = std::string (*)(char letter);

// Any thread; null brings back the default, under which C is the root directory and no other letter is known.
void SetDriveLetterResolver(DriveLetterResolver resolver);
[[nodiscard]] std::string PathOfDriveLetter(char letter);

} // namespace fodr::ntposix
