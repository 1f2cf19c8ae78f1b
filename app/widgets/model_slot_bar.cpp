#include "model_slot_bar.h"

#include "account/catalog_store.h"
#include "conversation/chat_session.h"
#include "model_picker.h"

#include <QHBoxLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QToolButton>

namespace kestrolan {

ModelSlotBar::ModelSlotBar(QWidget* parent)
    : QWidget(parent)
    , m_layout(new QHBoxLayout(this))
    , m_picker(new ModelPicker(this)) {
    setAccessibleName(QStringLiteral("Models"));
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->setSpacing(6);
    m_picker->setWindowFlag(Qt::Popup);
    m_picker->resize(440, 380);
    m_picker->hide();
    connect(m_picker, &ModelPicker::chosen, this, [this] {
        m_picker->hide();
        rebuild();
    });
}

ModelSlotBar::~ModelSlotBar() = default;

void ModelSlotBar::setCatalog(CatalogStore* catalog) {
    m_catalog = catalog;
    m_picker->setCatalog(catalog);
    for (const auto& connection : std::as_const(m_connections))
        disconnect(connection);
    m_connections.clear();
    if (m_catalog)
        m_connections.append(
            connect(m_catalog, &CatalogStore::changed, this, &ModelSlotBar::rebuild));
    if (m_session)
        m_connections.append(
            connect(m_session, &ChatSession::changed, this, &ModelSlotBar::rebuild));
    rebuild();
}

void ModelSlotBar::setSession(ChatSession* session) {
    m_session = session;
    m_picker->setSession(session);
    setCatalog(m_catalog);
}

QString ModelSlotBar::slotLabel(int slot) const {
    const QStringList models = m_session ? m_session->slotModels() : QStringList();
    const QString id = slot < models.size() ? models[slot] : QString();
    if (id.isEmpty())
        return QStringLiteral("Choose a model");
    const CatalogModel* model = m_catalog ? m_catalog->model(id) : nullptr;
    return model ? model->displayName : id;
}

void ModelSlotBar::rebuild() {
    // Buttons may be rebuilt from their own click: they go once control returns.
    while (auto* item = m_layout->takeAt(0)) {
        if (QWidget* widget = item->widget()) {
            widget->hide();
            widget->deleteLater();
        }
        delete item;
    }
    m_buttons.clear();
    const int count = m_session ? std::max<int>(1, int(m_session->slotModels().size())) : 1;
    const bool idle = m_session && !m_session->isStreaming();
    for (int slot = 0; slot < count; ++slot) {
        auto* button = new QToolButton(this);
        button->setText(slotLabel(slot) + QStringLiteral(" ▾"));
        // The name carries the chosen model, so a screen reader says which one it is.
        button->setAccessibleName((count > 1 ? u"Model of column " + QString::number(slot + 1)
                                             : QStringLiteral("Model")) +
                                  u": " + slotLabel(slot));
        button->setToolTip(QStringLiteral("Choose the model (Ctrl+K)"));
        button->setEnabled(idle);
        connect(button, &QToolButton::clicked, this, [this, slot] { openPicker(slot); });
        m_layout->addWidget(button);
        m_buttons.append(button);
        if (slot > 0) {
            auto* remove = new QToolButton(this);
            remove->setText(QStringLiteral("×"));
            remove->setAccessibleName(u"Remove column " + QString::number(slot + 1));
            remove->setToolTip(QStringLiteral("Stop comparing this model"));
            remove->setEnabled(idle);
            connect(remove, &QToolButton::clicked, this, [this, slot] {
                if (m_session && m_session->removeSlot(slot))
                    rebuild();
            });
            m_layout->addWidget(remove);
        }
    }
    if (count < maxSlots) {
        auto* add = new QToolButton(this);
        add->setText(QStringLiteral("+ Compare"));
        add->setAccessibleName(QStringLiteral("Compare with another model"));
        add->setEnabled(idle && m_catalog && m_catalog->selectedModelID());
        connect(add, &QToolButton::clicked, this, [this] {
            if (!m_session || !m_catalog || !m_catalog->selectedModelID())
                return;
            // The new column starts with the selected model; its picker opens to change it.
            if (m_session->addSlot(*m_catalog->selectedModelID())) {
                rebuild();
                openPicker(int(m_session->slotModels().size()) - 1);
            }
        });
        m_layout->addWidget(add);
    }
    m_layout->addStretch();
}

void ModelSlotBar::openPicker(int slot) {
    if (slot < 0 || slot >= m_buttons.size())
        return;
    m_picker->setSlot(slot);
    m_picker->searchField()->clear();
    QToolButton* button = m_buttons[slot];
    m_picker->move(button->mapToGlobal(QPoint(0, button->height() + 2)));
    m_picker->show();
    m_picker->searchField()->setFocus();
}

} // namespace kestrolan
