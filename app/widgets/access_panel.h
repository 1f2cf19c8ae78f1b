#pragma once

#include "service/server_origin.h"
#include "tools/local_access_mode.h"

#include <QPointer>
#include <QUuid>
#include <QWidget>
#include <optional>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;

namespace kestrolan {

class ChatSession;
class Defaults;

// The chat's local access: Off, Ask every time, Read-only workspace or Full access over a
// chosen folder, and the web search and web fetch switches. Granting asks the user to accept
// the billing disclosure, and Full access to confirm its risks; the folder and mode stay in
// view while access is granted. Every change goes through the session's tool executor.
class AccessPanel : public QWidget {
    Q_OBJECT

public:
    explicit AccessPanel(Defaults& defaults, QWidget* parent = nullptr);
    ~AccessPanel() override;

    void setSession(ChatSession* session);
    // The signed-in account a grant is made for; none while signed out (nothing is granted).
    void setAccount(std::optional<ServerOrigin> origin, std::optional<QUuid> accountID);

    // The folder chosen for the next grant.
    void setFolder(const QString& path);
    QString folder() const { return m_folder; }

    // Asks for `mode` over the chosen folder, with the confirmations it needs, and reports the
    // refusal when the executor refuses it. Returns whether the mode is now in force.
    bool requestMode(LocalAccessMode mode);

    static QString modeName(LocalAccessMode mode);
    static QString modeDescription(LocalAccessMode mode);
    static QString untrustedTextNote();

    QString errorText() const;

private:
    void chooseFolder();
    void refresh();
    void storeWebSettings();

    Defaults& m_defaults;
    QPointer<ChatSession> m_session;
    QMetaObject::Connection m_grantChanged;
    std::optional<ServerOrigin> m_origin;
    std::optional<QUuid> m_accountID;
    QString m_folder;
    QString m_grantedFolder; // the folder of the grant in force

    QComboBox* m_mode;
    QPushButton* m_folderButton;
    QLabel* m_grantLine;
    QLabel* m_description;
    QLabel* m_error;
    QCheckBox* m_webSearch;
    QCheckBox* m_webFetch;
};

} // namespace kestrolan
