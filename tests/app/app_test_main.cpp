#include <QApplication>
#include <gtest/gtest.h>

// Widgets need a QApplication; the display comes from tests/support/with-display.
int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
