#include "ntposix/DriveLetters.h"

#include <atomic>

namespace fodr::ntposix {

namespace {

std::string DefaultPath(char letter)
{
    return letter == 'C' || letter == 'c' ? "/" : "";
}

std::atomic<DriveLetterResolver> resolve{&DefaultPath};

} // namespace

void SetDriveLetterResolver(DriveLetterResolver resolver)
{
    resolve = resolver ? resolver : &DefaultPath;
}

std::string PathOfDriveLetter(char letter)
{
    return resolve.load()(letter);
}

} // namespace fodr::ntposix
