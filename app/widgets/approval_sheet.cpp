#include "approval_sheet.h"

#include "tools/approval_clock.h"
#include "tools/tool_executor.h"

#include <QDialogButtonBox>
#include <QFontDatabase>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace kestrolan {

namespace {

QString operationTitle(const ToolOperation& operation) {
    return std::visit(
        [](const auto& payload) -> QString {
            using Payload = std::decay_t<decltype(payload)>;
            if constexpr (std::is_same_v<Payload, ToolOperation::ReadFile>)
                return QStringLiteral("Read a file");
            else if constexpr (std::is_same_v<Payload, ToolOperation::ListDirectory>)
                return QStringLiteral("List a folder");
            else if constexpr (std::is_same_v<Payload, ToolOperation::Search>)
                return QStringLiteral("Search files");
            else if constexpr (std::is_same_v<Payload, ToolOperation::EditFile>)
                return payload.create ? QStringLiteral("Create a file")
                                      : QStringLiteral("Edit a file");
            else if constexpr (std::is_same_v<Payload, ToolOperation::RunShell>)
                return QStringLiteral("Run a command");
            else if constexpr (std::is_same_v<Payload, ToolOperation::WebSearch>)
                return QStringLiteral("Search the web");
            else
                return QStringLiteral("Fetch a web page");
        },
        operation.payload());
}

QString targetText(const ToolOperation& operation) {
    if (const auto* shell = std::get_if<ToolOperation::RunShell>(&operation.payload()))
        return shell->command + u"\nin " + shell->cwd;
    return operation.target();
}

} // namespace

ApprovalSheet::ApprovalSheet(std::shared_ptr<ApprovalClock> clock, QWidget* parent)
    : QDialog(parent)
    , m_clock(clock ? std::move(clock) : std::make_shared<ApprovalClock>())
    , m_operation(new QLabel(this))
    , m_target(new QLabel(this))
    , m_disclosure(new QLabel(this))
    , m_note(new QLabel(ToolApproval::sheetNote(), this))
    , m_countdown(new QLabel(this))
    , m_allow(new QPushButton(QStringLiteral("Allow once"), this))
    , m_deny(new QPushButton(QStringLiteral("Deny"), this)) {
    setWindowTitle(QStringLiteral("Approve tool use"));
    setAccessibleName(QStringLiteral("Approve tool use"));
    setWindowModality(Qt::WindowModal);
    QFont title = m_operation->font();
    title.setBold(true);
    title.setPointSizeF(title.pointSizeF() * 1.15);
    m_operation->setFont(title);
    m_operation->setAccessibleDescription(QStringLiteral("Operation"));
    m_target->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_target->setAccessibleDescription(QStringLiteral("Target"));
    m_target->setTextFormat(Qt::PlainText);
    m_target->setWordWrap(true);
    m_target->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_target->setFrameShape(QFrame::StyledPanel);
    m_target->setMargin(8);
    for (QLabel* label : {m_operation, m_disclosure, m_note, m_countdown})
        label->setTextFormat(Qt::PlainText);
    m_disclosure->setWordWrap(true);
    m_disclosure->setAccessibleDescription(QStringLiteral("Disclosure"));
    m_note->setWordWrap(true);
    m_note->setAccessibleDescription(QStringLiteral("Note"));
    m_note->setForegroundRole(QPalette::PlaceholderText);
    m_countdown->setAccessibleDescription(QStringLiteral("Time left"));
    m_allow->setAccessibleName(QStringLiteral("Allow once"));
    m_deny->setAccessibleName(QStringLiteral("Deny"));
    // Deny is the safe answer, so Return gives it.
    m_deny->setDefault(true);
    m_allow->setAutoDefault(false);

    auto* buttons = new QDialogButtonBox(this);
    buttons->addButton(m_deny, QDialogButtonBox::RejectRole);
    buttons->addButton(m_allow, QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 18, 20, 16);
    layout->setSpacing(10);
    layout->addWidget(m_operation);
    layout->addWidget(m_target);
    layout->addWidget(m_disclosure);
    layout->addWidget(m_note);
    layout->addWidget(m_countdown);
    layout->addWidget(buttons);
    setMinimumWidth(460);

    m_ticker.setInterval(250);
    connect(&m_ticker, &QTimer::timeout, this, &ApprovalSheet::tick);
}

ApprovalSheet::~ApprovalSheet() = default;

void ApprovalSheet::setExecutor(ToolExecutor* executor) {
    disconnect(m_connection);
    m_executor = executor;
    if (m_executor)
        m_connection = connect(m_executor, &ToolExecutor::pendingApprovalChanged, this,
                               &ApprovalSheet::refresh);
    refresh();
}

void ApprovalSheet::refresh() {
    const std::optional<ToolApproval> pending =
        m_executor ? m_executor->pendingApproval() : std::nullopt;
    if (!pending) {
        m_shownID = {};
        m_ticker.stop();
        if (isVisible())
            QDialog::done(QDialog::Rejected);
        return;
    }
    m_shownID = pending->id;
    m_operation->setText(operationTitle(pending->operation));
    m_target->setText(targetText(pending->operation));
    m_disclosure->setText(pending->disclosure());
    tick();
    m_ticker.start();
    if (!isVisible()) {
        show();
        m_deny->setFocus();
    }
}

int ApprovalSheet::secondsLeft() const {
    if (!m_executor || !m_executor->pendingApproval())
        return 0;
    const qint64 ms = m_clock->now().msecsTo(m_executor->pendingApproval()->expiresAt);
    return ms <= 0 ? 0 : int((ms + 999) / 1000);
}

QString ApprovalSheet::countdownText() const {
    const int seconds = secondsLeft();
    return u"Denied automatically in " + QString::number(seconds / 60) + u':' +
           QStringLiteral("%1").arg(seconds % 60, 2, 10, QLatin1Char('0')) + u'.';
}

void ApprovalSheet::tick() {
    m_countdown->setText(countdownText());
}

void ApprovalSheet::done(int result) {
    // Every way out answers the question: only Allow once allows.
    const QUuid id = std::exchange(m_shownID, {});
    m_ticker.stop();
    QDialog::done(result);
    if (m_executor && !id.isNull())
        m_executor->resolveApproval(result == QDialog::Accepted, id);
}

} // namespace kestrolan
