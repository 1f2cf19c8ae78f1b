#include "windows/account_strip.h"

#include "account/account_model.h"
#include "account/usd_formatting.h"
#include "conversation/chat_session.h"
#include "model/application_model.h"
#include "service/client_error.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace kestrolan {

QString AccountStrip::zeroRetentionReason() {
    return ClientError::describe(ClientError::Kind::zeroRetention);
}

AccountStrip::AccountStrip(QWidget* parent)
    : QWidget(parent)
    , m_email(new QLabel(this))
    , m_balance(new QLabel(this))
    , m_retention(new QLabel(QStringLiteral("Zero Data Retention on"), this))
    , m_status(new QLabel(this))
    , m_save(new QPushButton(QStringLiteral("Save chat"), this))
    , m_signOut(new QPushButton(QStringLiteral("Sign out"), this)) {
    m_email->setAccessibleDescription(QStringLiteral("Account"));
    m_balance->setAccessibleDescription(QStringLiteral("Available balance"));
    m_retention->setAccessibleName(QStringLiteral("Zero Data Retention"));
    m_status->setAccessibleDescription(QStringLiteral("Save status"));
    m_save->setAccessibleName(QStringLiteral("Save chat"));
    m_signOut->setAccessibleName(QStringLiteral("Sign out"));
    for (QLabel* label : {m_email, m_balance, m_status})
        label->setTextFormat(Qt::PlainText);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 4, 8, 4);
    layout->addWidget(m_email);
    layout->addWidget(m_balance);
    layout->addWidget(m_retention);
    layout->addStretch(1);
    layout->addWidget(m_status);
    layout->addWidget(m_save);
    layout->addWidget(m_signOut);
    connect(m_save, &QPushButton::clicked, this, &AccountStrip::saveRequested);
    connect(m_signOut, &QPushButton::clicked, this, &AccountStrip::signOutRequested);
    refresh();
}

void AccountStrip::setModel(ApplicationModel* model) {
    m_model = model;
    if (model) {
        connect(&model->account(), &AccountModel::accountChanged, this, &AccountStrip::refresh);
        connect(&model->account(), &AccountModel::stateChanged, this, &AccountStrip::refresh);
        connect(model, &ApplicationModel::chatReplaced, this, &AccountStrip::refresh);
    }
    refresh();
}

void AccountStrip::refresh() {
    disconnect(m_chatChanged);
    const auto* account = m_model ? &m_model->account().account() : nullptr;
    if (!account || !*account) {
        m_email->clear();
        m_balance->clear();
        m_retention->hide();
        m_save->setEnabled(false);
        m_save->setToolTip(QString());
        m_status->clear();
        return;
    }
    ChatSession& chat = m_model->chat();
    m_chatChanged = connect(&chat, &ChatSession::changed, this, &AccountStrip::refresh);
    m_email->setText((*account)->email);
    const auto available = USDFormatting::display((*account)->availableUSD, false);
    m_balance->setText(available ? *available + QStringLiteral(" available") : QString());
    const bool zeroRetention = (*account)->zeroRetention.enabled;
    m_retention->setVisible(zeroRetention);
    const bool canSave = m_model->account().canSaveChats();
    const bool hasTurns = !chat.conversation().turns.isEmpty();
    m_save->setEnabled(canSave && hasTurns && !chat.isStreaming() && !chat.isSaving());
    m_save->setToolTip(canSave ? QString() : zeroRetentionReason());
    if (!canSave)
        m_status->setText(zeroRetentionReason());
    else if (const auto& failure = chat.saveError())
        m_status->setText(*failure);
    else if (chat.isSaving())
        m_status->setText(QStringLiteral("Saving…"));
    else if (chat.savedID() && !chat.isDirty())
        m_status->setText(QStringLiteral("Saved"));
    else
        m_status->clear();
}

} // namespace kestrolan
