#include "model_picker.h"

#include "account/catalog_formatting.h"
#include "account/catalog_store.h"
#include "conversation/chat_session.h"

#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QVBoxLayout>

namespace kestrolan {

namespace {
constexpr int idRole = Qt::UserRole + 1;
}

ModelPicker::ModelPicker(QWidget* parent)
    : QWidget(parent)
    , m_search(new QLineEdit(this))
    , m_list(new QListWidget(this))
    , m_error(new QLabel(this)) {
    setAccessibleName(QStringLiteral("Model picker"));
    m_search->setPlaceholderText(QStringLiteral("Search models"));
    m_search->setAccessibleName(QStringLiteral("Search models"));
    m_search->setClearButtonEnabled(true);
    m_search->installEventFilter(this);
    m_list->setAccessibleName(QStringLiteral("Models"));
    m_list->setUniformItemSizes(false);
    m_list->setWordWrap(true);
    m_list->setSpacing(1);
    m_list->setTextElideMode(Qt::ElideRight);
    m_error->setWordWrap(true);
    m_error->setAccessibleDescription(QStringLiteral("Catalog status"));
    m_error->hide();
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(8, 8, 8, 8);
    layout->addWidget(m_search);
    layout->addWidget(m_error);
    layout->addWidget(m_list, 1);

    connect(m_search, &QLineEdit::textChanged, this, [this](const QString& text) {
        m_state.query = text;
        rebuild();
    });
    connect(m_search, &QLineEdit::returnPressed, this, [this] {
        if (m_state.highlightedID)
            choose(*m_state.highlightedID);
    });
    connect(m_list, &QListWidget::itemActivated, this,
            [this](QListWidgetItem* item) { choose(item->data(idRole).toString()); });
    connect(m_list, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* item) {
        if (item && (item->flags() & Qt::ItemIsEnabled))
            m_state.highlightedID = item->data(idRole).toString();
    });
}

ModelPicker::~ModelPicker() = default;

void ModelPicker::setCatalog(CatalogStore* catalog) {
    disconnect(m_catalogChanged);
    m_catalog = catalog;
    if (m_catalog)
        m_catalogChanged = connect(m_catalog, &CatalogStore::changed, this, &ModelPicker::rebuild);
    m_state = ModelPickerState(currentModelID().isEmpty() ? std::nullopt
                                                          : std::optional(currentModelID()));
    m_state.query = m_search->text();
    rebuild();
}

void ModelPicker::setSession(ChatSession* session) {
    m_session = session;
    setSlot(0);
}

void ModelPicker::setSlot(int slot) {
    m_slot = slot;
    const QString current = currentModelID();
    m_state.highlightedID = current.isEmpty() ? std::nullopt : std::optional(current);
    rebuild();
}

QString ModelPicker::currentModelID() const {
    if (m_session) {
        const QStringList models = m_session->slotModels();
        if (m_slot < models.size())
            return models[m_slot];
    }
    if (m_catalog && m_slot == 0)
        return m_catalog->selectedModelID().value_or(QString());
    return {};
}

QString ModelPicker::detailLine(const CatalogModel& model) {
    const bool tools = model.capabilities && model.capabilities->toolCalling;
    return CatalogFormatting::metadata(model) + u" · " +
           (tools ? QStringLiteral("tools") : QStringLiteral("no tools"));
}

void ModelPicker::rebuild() {
    m_list->clear();
    if (!m_catalog)
        return;
    const auto& models = m_catalog->models();
    m_state.reconcile(models);
    if (const auto& error = m_catalog->errorMessage()) {
        m_error->setText(models.isEmpty()
                             ? QStringLiteral("Models could not be refreshed.")
                             : QStringLiteral("Models could not be refreshed. Showing the last "
                                              "loaded catalog."));
        m_error->setToolTip(*error);
        m_error->show();
    } else {
        m_error->hide();
    }
    const QString current = currentModelID();
    for (const auto& model : m_state.filtered(models)) {
        QString text = model.displayName;
        if (model.id == current)
            text += QStringLiteral("  ✓");
        if (!model.available)
            text += QStringLiteral("  (unavailable)");
        text += u'\n' + detailLine(model);
        auto* item = new QListWidgetItem(text, m_list);
        item->setData(idRole, model.id);
        item->setToolTip(model.description.isEmpty()
                             ? CatalogFormatting::exactMetadata(model)
                             : model.description + u'\n' + CatalogFormatting::exactMetadata(model));
        item->setData(Qt::AccessibleTextRole, model.displayName);
        item->setData(Qt::AccessibleDescriptionRole, detailLine(model));
        if (!model.available)
            item->setFlags(Qt::NoItemFlags);
    }
    syncHighlight();
}

void ModelPicker::syncHighlight() {
    for (int i = 0; i < m_list->count(); ++i) {
        auto* item = m_list->item(i);
        if (m_state.highlightedID && item->data(idRole).toString() == *m_state.highlightedID) {
            const QSignalBlocker blocker(m_list);
            m_list->setCurrentItem(item);
            m_list->scrollToItem(item);
            return;
        }
    }
}

bool ModelPicker::choose(const QString& modelID) {
    if (!m_catalog || !m_catalog->isAvailable(modelID))
        return false;
    if (m_session) {
        if (!m_session->selectModel(modelID, m_slot))
            return false;
    }
    // The catalog remembers the main column's model as the last one used.
    if (m_slot == 0 && !m_catalog->select(modelID))
        return false;
    m_state.highlightedID = modelID;
    rebuild();
    Q_EMIT chosen(modelID);
    return true;
}

bool ModelPicker::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_search && event->type() == QEvent::KeyPress && m_catalog) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        if (key == Qt::Key_Down || key == Qt::Key_Up) {
            m_state.move(key == Qt::Key_Down ? 1 : -1, m_catalog->models());
            syncHighlight();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

} // namespace kestrolan
