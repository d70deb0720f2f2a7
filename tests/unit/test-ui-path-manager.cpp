// The process-wide path table.

#include <gtest/gtest.h>

#include "lib/desktop/ui-path-manager.h"

TEST(UIPathManager, OneTableWithExactKeysWhereALaterValueReplaces) {
    UIPathManager* table = UIPathManager::getInstance();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table, UIPathManager::getInstance());
    EXPECT_TRUE(table->getPath("user_nimbrel_app_path").isEmpty());
    table->setPath("user_corvane_quarn_path", "/home/a/.CorvaneQuarn");
    table->setPath("user_corvane_quarn_path", "/home/b/.CorvaneQuarn");
    EXPECT_EQ(UIPathManager::getInstance()->getPath("user_corvane_quarn_path"),
              QString("/home/b/.CorvaneQuarn"));
    EXPECT_TRUE(table->getPath("User_corvane_quarn_path").isEmpty());
    EXPECT_TRUE(table->getPath("user_corvane_quarn_path ").isEmpty());
}
