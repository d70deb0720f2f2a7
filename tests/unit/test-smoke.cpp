#include <gtest/gtest.h>

#include "tests/support/test-support.h"

TEST(TestSupport, UnprivilegedChildCannotWriteRootFolder) {
    testsupport::TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    int rc = testsupport::RunAsUnprivileged([&]() {
        return testsupport::WriteFile(dir / "x", "y") ? 1 : 0;
    });
    EXPECT_EQ(rc, 0);
}
