// The process-wide path table.

#include <gtest/gtest.h>

#include "lib/desktop/ui-path-manager.h"

namespace {

TEST(UIPathManager, OneTableForTheWholeProcess) {
    UIPathManager* table = UIPathManager::getInstance();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table, UIPathManager::getInstance());
    table->setPath("root_resource_path", "/opt/Corvane/CorvaneQuarn");
    EXPECT_EQ(UIPathManager::getInstance()->getPath("root_resource_path"),
              QString("/opt/Corvane/CorvaneQuarn"));
}

TEST(UIPathManager, UnsetKeyReadsEmptyAndALaterValueReplaces) {
    UIPathManager* table = UIPathManager::getInstance();
    EXPECT_TRUE(table->getPath("user_nimbrel_app_path").isEmpty());
    EXPECT_TRUE(table->getPath("").isEmpty());
    table->setPath("user_corvane_quarn_path", "/home/a/.CorvaneQuarn");
    table->setPath("user_corvane_quarn_path", "/home/b/.CorvaneQuarn");
    EXPECT_EQ(table->getPath("user_corvane_quarn_path"), QString("/home/b/.CorvaneQuarn"));
    // Keys are exact: case and blanks matter.
    EXPECT_TRUE(table->getPath("User_corvane_quarn_path").isEmpty());
    EXPECT_TRUE(table->getPath("user_corvane_quarn_path ").isEmpty());
}

}  // namespace
