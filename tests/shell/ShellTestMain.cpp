// The shell's tests run in one QApplication on the offscreen platform, with settings and support
// folders of their own.

#include "support/TemporaryFolder.h"

#include <QApplication>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const brim::testing::TemporaryFolder home;
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("XDG_CONFIG_HOME", (home.path() / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (home.path() / "data").c_str(), 1);
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
