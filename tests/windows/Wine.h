// Whether the tests run on Wine, which differs from Windows where docs/windows.md says.
#pragma once

#include <gtest/gtest.h>

namespace fodr::test {

bool RunsOnWine();

} // namespace fodr::test

// Ends a test there, where Wine doesn't do what Windows is documented to do.
#define FODR_SKIP_ON_WINE(reason)                                                                            \
    if (fodr::test::RunsOnWine())                                                                            \
    GTEST_SKIP() << (reason)
