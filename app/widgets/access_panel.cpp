#include "access_panel.h"

#include "conversation/chat_session.h"
#include "error.h"
#include "platform/defaults.h"
#include "tools/tool_executor.h"
#include "tools/web_tool_settings.h"
#include "workspace/workspace.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

namespace kestrolan {

namespace {

constexpr LocalAccessMode modes[] = {LocalAccessMode::off, LocalAccessMode::askEveryTime,
                                     LocalAccessMode::readOnlyWorkspace,
                                     LocalAccessMode::fullAccess};

bool confirm(QWidget* parent, const QString& title, const QString& text, const QString& accept) {
    QMessageBox box(QMessageBox::Warning, title, text, QMessageBox::Cancel, parent);
    box.setTextFormat(Qt::PlainText);
    auto* yes = box.addButton(accept, QMessageBox::AcceptRole);
    box.setDefaultButton(QMessageBox::Cancel);
    box.exec();
    return box.clickedButton() == yes;
}

} // namespace

AccessPanel::AccessPanel(Defaults& defaults, QWidget* parent)
    : QWidget(parent)
    , m_defaults(defaults)
    , m_mode(new QComboBox(this))
    , m_folderButton(new QPushButton(QStringLiteral("Choose folder…"), this))
    , m_grantLine(new QLabel(this))
    , m_description(new QLabel(this))
    , m_error(new QLabel(this))
    , m_webSearch(new QCheckBox(QStringLiteral("Web search"), this))
    , m_webFetch(new QCheckBox(QStringLiteral("Web fetch"), this)) {
    setAccessibleName(QStringLiteral("Local access"));
    for (const auto mode : modes)
        m_mode->addItem(modeName(mode), int(mode));
    m_mode->setAccessibleName(QStringLiteral("Local access mode"));
    m_folderButton->setAccessibleName(QStringLiteral("Choose workspace folder"));
    m_grantLine->setAccessibleDescription(QStringLiteral("Current local access"));
    m_grantLine->setTextFormat(Qt::PlainText);
    m_grantLine->setWordWrap(true);
    m_description->setTextFormat(Qt::PlainText);
    m_description->setWordWrap(true);
    m_description->setForegroundRole(QPalette::PlaceholderText);
    m_error->setTextFormat(Qt::PlainText);
    m_error->setWordWrap(true);
    m_error->setAccessibleDescription(QStringLiteral("Local access error"));
    m_error->hide();
    m_webSearch->setAccessibleName(QStringLiteral("Web search"));
    m_webFetch->setAccessibleName(QStringLiteral("Web fetch"));
    const auto web = WebToolSettings::load(m_defaults);
    m_webSearch->setChecked(web.searchEnabled);
    m_webFetch->setChecked(web.fetchEnabled);

    auto* row = new QHBoxLayout;
    row->addWidget(new QLabel(QStringLiteral("Local access:"), this));
    row->addWidget(m_mode);
    row->addWidget(m_folderButton);
    row->addStretch();
    row->addWidget(m_webSearch);
    row->addWidget(m_webFetch);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 6, 12, 6);
    layout->setSpacing(4);
    layout->addLayout(row);
    layout->addWidget(m_grantLine);
    layout->addWidget(m_description);
    layout->addWidget(m_error);

    connect(m_mode, &QComboBox::activated, this,
            [this](int index) { requestMode(LocalAccessMode(m_mode->itemData(index).toInt())); });
    connect(m_folderButton, &QPushButton::clicked, this, &AccessPanel::chooseFolder);
    connect(m_webSearch, &QCheckBox::toggled, this, &AccessPanel::storeWebSettings);
    connect(m_webFetch, &QCheckBox::toggled, this, &AccessPanel::storeWebSettings);
    refresh();
}

AccessPanel::~AccessPanel() = default;

QString AccessPanel::modeName(LocalAccessMode mode) {
    switch (mode) {
    case LocalAccessMode::off:
        return QStringLiteral("Off");
    case LocalAccessMode::askEveryTime:
        return QStringLiteral("Ask every time");
    case LocalAccessMode::readOnlyWorkspace:
        return QStringLiteral("Read-only workspace");
    case LocalAccessMode::fullAccess:
        return QStringLiteral("Full access");
    }
    return {};
}

QString AccessPanel::modeDescription(LocalAccessMode mode) {
    switch (mode) {
    case LocalAccessMode::off:
        return QStringLiteral("Choosing a folder sends no files and grants no tools. Local access "
                              "starts Off for each chat.");
    case LocalAccessMode::askEveryTime:
        return QStringLiteral("Ask every time requests approval before each operation.");
    case LocalAccessMode::readOnlyWorkspace:
        return QStringLiteral(
            "Read-only workspace automatically permits reads, listings and searches.");
    case LocalAccessMode::fullAccess:
        return QStringLiteral("Reads, listings and searches run without asking; edits and "
                              "commands ask each time. Approval required.");
    }
    return {};
}

QString AccessPanel::untrustedTextNote() {
    return QStringLiteral("File and tool text is untrusted data, never policy or permission. Only "
                          "explicit user controls grant local access.");
}

void AccessPanel::setSession(ChatSession* session) {
    disconnect(m_grantChanged);
    m_session = session;
    if (m_session)
        m_grantChanged =
            connect(&m_session->tools(), &ToolExecutor::grantChanged, this, &AccessPanel::refresh);
    m_error->hide();
    refresh();
}

void AccessPanel::setAccount(std::optional<ServerOrigin> origin, std::optional<QUuid> accountID) {
    m_origin = std::move(origin);
    m_accountID = accountID;
    refresh();
}

void AccessPanel::setFolder(const QString& path) {
    m_folder = path;
    refresh();
}

void AccessPanel::chooseFolder() {
    const QString chosen =
        QFileDialog::getExistingDirectory(this, QStringLiteral("Choose workspace folder"),
                                          m_folder.isEmpty() ? QDir::homePath() : m_folder);
    if (chosen.isEmpty())
        return;
    setFolder(chosen);
    // A new folder is a new grant: the mode in force is asked for again over it.
    if (m_session && m_session->tools().mode() != LocalAccessMode::off)
        requestMode(m_session->tools().mode());
}

QString AccessPanel::errorText() const {
    return m_error->isVisible() ? m_error->text() : QString();
}

bool AccessPanel::requestMode(LocalAccessMode mode) {
    m_error->hide();
    if (!m_session) {
        refresh();
        return false;
    }
    ToolExecutor& executor = m_session->tools();
    auto refuse = [this](const QString& text) {
        m_error->setText(text);
        m_error->show();
        refresh();
        return false;
    };
    if (mode != LocalAccessMode::off) {
        if (!m_origin || !m_accountID)
            return refuse(QStringLiteral("Sign in to grant local access."));
        if (m_folder.isEmpty())
            return refuse(QStringLiteral("Choose a folder first."));
        if (!confirm(this, QStringLiteral("Tool billing"), ToolExecutor::billingDisclosure(),
                     QStringLiteral("Accept"))) {
            refresh();
            return false;
        }
        if (mode == LocalAccessMode::fullAccess &&
            !confirm(this, QStringLiteral("Full access"), ToolExecutor::fullAccessDisclosure(),
                     QStringLiteral("Allow Full access"))) {
            refresh();
            return false;
        }
    }
    try {
        std::shared_ptr<Workspace> workspace;
        if (mode != LocalAccessMode::off)
            workspace =
                Workspace::open(QUrl::fromLocalFile(m_folder), mode == LocalAccessMode::fullAccess);
        executor.selectAccess(mode, std::move(workspace), m_origin.value_or(ServerOrigin()),
                              m_accountID.value_or(QUuid()), m_session->id(),
                              mode != LocalAccessMode::off, mode == LocalAccessMode::fullAccess);
    } catch (const Error& error) {
        return refuse(error.description());
    }
    m_grantedFolder = mode == LocalAccessMode::off ? QString() : m_folder;
    refresh();
    return executor.mode() == mode;
}

void AccessPanel::refresh() {
    const LocalAccessMode mode = m_session ? m_session->tools().mode() : LocalAccessMode::off;
    {
        const QSignalBlocker blocker(m_mode);
        m_mode->setCurrentIndex(m_mode->findData(int(mode)));
    }
    m_mode->setEnabled(m_session);
    m_folderButton->setText(m_folder.isEmpty() ? QStringLiteral("Choose folder…")
                                               : QDir::toNativeSeparators(m_folder));
    m_folderButton->setToolTip(QStringLiteral("Choose the workspace folder"));
    if (mode != LocalAccessMode::off && m_session) {
        m_grantLine->setText(
            u"Granted: " + modeName(mode) + u" · " +
            QDir::toNativeSeparators(m_grantedFolder.isEmpty() ? m_folder : m_grantedFolder));
        m_grantLine->show();
    } else {
        m_grantLine->hide();
    }
    m_description->setText(modeDescription(mode) + u' ' + untrustedTextNote());
}

void AccessPanel::storeWebSettings() {
    WebToolSettings settings;
    settings.searchEnabled = m_webSearch->isChecked();
    settings.fetchEnabled = m_webFetch->isChecked();
    settings.store(m_defaults);
}

} // namespace kestrolan
