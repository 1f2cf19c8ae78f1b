#include "access_panel.h"
#include "chat_service.h"
#include "qstring_printer.h"
#include "tools/tool_executor.h"

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QTimer>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

// Answers the modal message boxes that open while it runs, in order: accepts or cancels each
// and records its text. A box it has no answer for is cancelled.
class ModalAnswers {
public:
    explicit ModalAnswers(QList<bool> accept)
        : m_accept(std::move(accept)) {
        QObject::connect(&m_timer, &QTimer::timeout, [this] { answer(); });
        m_timer.start(0);
    }

    QStringList texts;

private:
    void answer() {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || !box->isVisible())
            return;
        texts.append(box->text());
        const bool accept = !m_accept.isEmpty() && m_accept.takeFirst();
        for (QAbstractButton* button : box->buttons()) {
            const auto role = box->buttonRole(button);
            if (accept ? role == QMessageBox::AcceptRole : role == QMessageBox::RejectRole) {
                button->click();
                return;
            }
        }
        ADD_FAILURE() << "no button to answer " << box->text().toStdString();
        box->reject();
    }

    QList<bool> m_accept;
    QTimer m_timer;
};

class AccessPanelTest : public ::testing::Test {
protected:
    AccessPanelTest()
        : panel(service.defaults) {
        panel.setSession(&service.session);
        panel.show();
    }

    ToolExecutor& executor() { return service.session.tools(); }
    QString shownMode() const { return panel.findChild<QComboBox*>()->currentText(); }
    // The "Granted: …" line, empty while it is hidden.
    QString grantLine() const {
        for (auto* label : panel.findChildren<QLabel*>())
            if (label->accessibleDescription() == u"Current local access")
                return label->isVisible() ? label->text() : QString();
        return {};
    }
    bool request(LocalAccessMode mode, QList<bool> answers, QStringList* asked = nullptr) {
        ModalAnswers modal(std::move(answers));
        const bool granted = panel.requestMode(mode);
        if (asked)
            *asked = modal.texts;
        return granted;
    }

    ChatService service;
    AccessPanel panel;
};

} // namespace

TEST_F(AccessPanelTest, NothingIsGrantedWithoutAnAccountAFolderAndTheAcceptedDisclosure) {
    // Signed out: refused before any question.
    QStringList asked;
    EXPECT_FALSE(request(LocalAccessMode::readOnlyWorkspace, {true}, &asked));
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_FALSE(panel.errorText().isEmpty());
    EXPECT_EQ(executor().mode(), LocalAccessMode::off);

    // No folder chosen yet: refused the same way.
    panel.setAccount(service.configuration.origin(), service.accountID);
    EXPECT_FALSE(request(LocalAccessMode::readOnlyWorkspace, {true}, &asked));
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(executor().mode(), LocalAccessMode::off);

    // The billing disclosure declined: still nothing, and the selector shows Off again.
    panel.setFolder(service.folder());
    EXPECT_FALSE(request(LocalAccessMode::readOnlyWorkspace, {false}, &asked));
    EXPECT_EQ(asked, QStringList{ToolExecutor::billingDisclosure()});
    EXPECT_EQ(executor().mode(), LocalAccessMode::off);
    EXPECT_FALSE(executor().grant());
    EXPECT_EQ(shownMode(), u"Off");
    EXPECT_TRUE(grantLine().isEmpty());
    EXPECT_TRUE(panel.errorText().isEmpty());
}

TEST_F(AccessPanelTest, AcceptedGrantStaysVisibleFullAccessNeedsItsOwnConfirmationOffRevokes) {
    panel.setAccount(service.configuration.origin(), service.accountID);
    panel.setFolder(service.folder());
    const QString folderShown = QDir::toNativeSeparators(service.folder());

    QStringList asked;
    EXPECT_TRUE(request(LocalAccessMode::askEveryTime, {true}, &asked));
    EXPECT_EQ(asked, QStringList{ToolExecutor::billingDisclosure()});
    EXPECT_EQ(executor().mode(), LocalAccessMode::askEveryTime);
    ASSERT_TRUE(executor().grant());
    EXPECT_EQ(executor().grant()->chatID, service.session.id());
    EXPECT_EQ(shownMode(), u"Ask every time");
    EXPECT_EQ(grantLine(), u"Granted: Ask every time · " + folderShown);

    // Full access asks about billing and then its own risks; declining the second keeps the
    // grant that was in force.
    EXPECT_FALSE(request(LocalAccessMode::fullAccess, {true, false}, &asked));
    EXPECT_EQ(asked, (QStringList{ToolExecutor::billingDisclosure(),
                                  ToolExecutor::fullAccessDisclosure()}));
    EXPECT_EQ(executor().mode(), LocalAccessMode::askEveryTime);
    EXPECT_EQ(shownMode(), u"Ask every time");
    EXPECT_EQ(grantLine(), u"Granted: Ask every time · " + folderShown);

    EXPECT_TRUE(request(LocalAccessMode::fullAccess, {true, true}, &asked));
    EXPECT_EQ(asked.size(), 2);
    EXPECT_EQ(executor().mode(), LocalAccessMode::fullAccess);
    EXPECT_EQ(shownMode(), u"Full access");
    EXPECT_EQ(grantLine(), u"Granted: Full access · " + folderShown);

    // Another folder chosen while granted: the line keeps naming the folder actually granted
    // until a new grant is made over the new one.
    const QString elsewhere = service.folder() + u"/elsewhere"_s;
    ASSERT_TRUE(QDir().mkpath(elsewhere));
    panel.setFolder(elsewhere);
    EXPECT_EQ(grantLine(), u"Granted: Full access · " + folderShown);

    // Off needs no question and drops the grant.
    EXPECT_TRUE(request(LocalAccessMode::off, {}, &asked));
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(executor().mode(), LocalAccessMode::off);
    EXPECT_FALSE(executor().grant());
    EXPECT_EQ(shownMode(), u"Off");
    EXPECT_TRUE(grantLine().isEmpty());

    // A grant ended by the executor itself (the chat stops its local work) shows as Off too.
    EXPECT_TRUE(request(LocalAccessMode::readOnlyWorkspace, {true}));
    EXPECT_EQ(shownMode(), u"Read-only workspace");
    EXPECT_EQ(grantLine(),
              u"Granted: Read-only workspace · " + QDir::toNativeSeparators(elsewhere));
    executor().revoke();
    EXPECT_EQ(shownMode(), u"Off");
    EXPECT_TRUE(grantLine().isEmpty());
}
