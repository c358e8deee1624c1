// Listings under Wine, which keeps the pattern of a handle's first query for ever: Windows takes the pattern
// of each query that starts anew (MS-FSA 2.1.5.6.3). There, each such query gets a handle of its own to the
// same folder. Any thread.
#pragma once

#include "platform/windows/Win32.h"

#include <cstdint>

namespace fodr::platform {

bool IsWine();

// The handle to ask, which is closed with the folder's: a new one when the query starts anew with a pattern.
// The folder's own on Windows, and where none can be had.
HANDLE HandleForScan(HANDLE folder, bool startsAnewWithPattern);
// Before the folder's handle is closed.
void ForgetScan(HANDLE folder);
// Classes of listings that Wine doesn't know, but says so only to a buffer of one certain length. Whoever
// asks with longer and longer buffers would do so without an end.
bool IsUnknownListing(uint32_t infoClass);

} // namespace fodr::platform
