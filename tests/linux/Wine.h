// Whether the tests run on Wine, which differs from Windows where docs/windows.md says.
#pragma once

namespace fodr::test {

constexpr bool RunsOnWine()
{
    return false;
}

} // namespace fodr::test

// Ends a test there, where Wine doesn't do what Windows is documented to do.
#define FODR_SKIP_ON_WINE(reason) static_cast<void>(reason)
