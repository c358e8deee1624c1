// The calling thread ends here and now.
#pragma once

namespace fodr::test {

[[noreturn]] void EndThread();

} // namespace fodr::test
