#include <gtest/gtest.h>

#include "support/FakeTrace.h"

// -municode makes wmain the entry point. The arguments are GoogleTest's own and plain ASCII.
int wmain(int argc, wchar_t** argv)
{
    CFakeTrace::Install();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
