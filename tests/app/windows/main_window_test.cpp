#include "account/account_model.h"
#include "account/desktop_auth.h"
#include "app_test_fixture.h"
#include "conversation/chat_session.h"
#include "model/app_state.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "windows/account_strip.h"
#include "windows/chat_sidebar.h"
#include "windows/main_window.h"
#include "windows/sign_in_view.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>

using namespace kestrolan;
using namespace kestrolan::test;

namespace {

class MainWindowTest : public AppModelTest {
protected:
    MainWindow& showWindow() {
        window = std::make_unique<MainWindow>();
        window->show();
        window->activateWindow();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window.get()));
        return *window;
    }

    // The sidebar's rows as "heading" and "  title" lines, in order.
    QStringList sidebarRows() const {
        QStringList rows;
        QTreeWidget* list = window->sidebar()->list();
        for (int i = 0; i < list->topLevelItemCount(); ++i) {
            const QTreeWidgetItem* item = list->topLevelItem(i);
            const bool isChat = !item->data(0, ChatSidebar::summaryRole).isNull();
            rows << (isChat ? u"  " + item->text(0) : item->text(0));
        }
        return rows;
    }

    void TearDown() override {
        window.reset();
        AppModelTest::TearDown();
    }

    std::unique_ptr<MainWindow> window;
};

} // namespace

TEST_F(MainWindowTest, SignedOutScreenTakesReturnAndShowsWaitingAndErrors) {
    auto& shown = showWindow();
    EXPECT_EQ(shown.windowTitle(), u"Kestrolan");
    EXPECT_EQ(shown.page(), MainWindow::Page::starting);
    shown.setModel(&makeModel());
    runUntil([&] { return shown.page() == MainWindow::Page::signedOut; });

    QPushButton* signInButton = shown.signInView()->signInButton();
    EXPECT_TRUE(signInButton->isDefault());
    // No window manager under Xvfb: the window is given the input focus as one would give it.
    QApplication::setActiveWindow(&shown);
    runUntil([&] { return QApplication::focusWidget() == signInButton; });
    // Return where the focus is starts signing in: the browser is asked to open.
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    ASSERT_TRUE(opened);
    EXPECT_TRUE(shown.signInView()->isWaiting());
    EXPECT_TRUE(shown.signInView()->cancelButton()->isVisible());
    EXPECT_FALSE(signInButton->isEnabled());

    QTest::mouseClick(shown.signInView()->cancelButton(), Qt::LeftButton);
    EXPECT_FALSE(model->auth().isSigningIn());
    EXPECT_FALSE(shown.signInView()->cancelButton()->isVisible());
    EXPECT_TRUE(signInButton->isEnabled());
    EXPECT_EQ(QApplication::focusWidget(), signInButton);

    // A browser that cannot be started: the reason is on the screen.
    browserWorks = false;
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    EXPECT_EQ(shown.signInView()->errorText(), u"The sign-in page could not be opened.");
    EXPECT_EQ(shown.windowTitle(), u"Kestrolan");
}

TEST_F(MainWindowTest, SignedInShowsAccountAndGroupsSavedChatsByTheInjectedDay) {
    // Two days from now, the chats saved today are "Previous 7 days".
    QDateTime clock = QDateTime::currentDateTimeUtc();
    now = [&clock] { return clock; };
    auto& shown = showWindow();
    shown.setModel(&makeModel());
    signIn();
    runUntil([&] { return shown.page() == MainWindow::Page::chat; });
    EXPECT_EQ(shown.windowTitle(), u"Kestrolan");
    EXPECT_EQ(shown.accountStrip()->emailLabel()->text(), u"dev@localhost");
    EXPECT_EQ(shown.accountStrip()->balanceLabel()->text(), u"$25.00 available");
    // Nothing to save in an empty chat.
    EXPECT_FALSE(shown.accountStrip()->saveButton()->isEnabled());

    sendMessage(QStringLiteral("first"));
    // The charge of the turn shows in the balance without a manual refresh.
    runUntil([&] { return shown.accountStrip()->balanceLabel()->text() != u"$25.00 available"; });
    EXPECT_TRUE(shown.accountStrip()->saveButton()->isEnabled());
    QTest::mouseClick(shown.accountStrip()->saveButton(), Qt::LeftButton);
    runUntil([&] { return model->savedChats().size() == 1; });
    EXPECT_EQ(sidebarRows().size(), 2);
    EXPECT_EQ(sidebarRows().value(0), u"Today");

    clock = clock.addDays(2);
    shown.sidebar()->rebuild();
    EXPECT_EQ(sidebarRows().value(0), u"Previous 7 days");
    shown.sidebar()->filterField()->setText(QStringLiteral("no such chat"));
    EXPECT_TRUE(sidebarRows().isEmpty());
    shown.sidebar()->filterField()->clear();
    EXPECT_EQ(sidebarRows().size(), 2);

    // Zero Data Retention: Save is off and says why.
    service.admin("POST", QStringLiteral("/admin/zero-retention"), R"({"enabled":true})");
    runTask(model->account().refresh(true, QDateTime::currentDateTimeUtc()));
    sendMessage(QStringLiteral("second"));
    EXPECT_FALSE(shown.accountStrip()->saveButton()->isEnabled());
    EXPECT_EQ(shown.accountStrip()->saveButton()->toolTip(),
              u"Saving is off while Zero Data Retention is on.");

    // Signing out from the strip returns to the sign-in screen, the sidebar emptied.
    QTest::mouseClick(shown.accountStrip()->signOutButton(), Qt::LeftButton);
    runUntil([&] { return shown.page() == MainWindow::Page::signedOut; });
    runUntil([&] { return sidebarRows().isEmpty(); });
    EXPECT_EQ(shown.windowTitle(), u"Kestrolan");
}

TEST_F(MainWindowTest, AServiceAddressThatCannotBeUsedIsShownInsteadOfTheScreens) {
    auto& shown = showWindow();
    AppState state;
    auto broken = parts();
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), QStringLiteral("ftp://example.com"));
    broken.environment = environment;
    state.build(std::move(broken));
    ASSERT_FALSE(state.model());
    ASSERT_TRUE(state.errorMessage());
    shown.showFailure(*state.errorMessage());
    EXPECT_EQ(shown.page(), MainWindow::Page::failed);
    EXPECT_EQ(*state.errorMessage(), u"The Kestrolan server address is invalid.");
}
