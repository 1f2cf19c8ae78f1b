#pragma once

#include "account/model_picker_state.h"

#include <QPointer>
#include <QWidget>

class QLabel;
class QLineEdit;
class QListWidget;
class QListWidgetItem;

namespace kestrolan {

class CatalogStore;
class ChatSession;

// Chooses the model of one reply column: a search box over the catalog, each model with its
// name, prices per million tokens, context size and whether it can use tools. Unavailable
// models are listed but cannot be chosen. The choice goes to the session's column and, for the
// first column, to the catalog, which remembers it as the last used model.
class ModelPicker : public QWidget {
    Q_OBJECT

public:
    explicit ModelPicker(QWidget* parent = nullptr);
    ~ModelPicker() override;

    void setCatalog(CatalogStore* catalog);
    void setSession(ChatSession* session);
    // The column the choice applies to (0 is the main one).
    void setSlot(int slot);
    int slot() const { return m_slot; }

    QLineEdit* searchField() const { return m_search; }
    QListWidget* list() const { return m_list; }
    const ModelPickerState& state() const { return m_state; }

    // Chooses a model; false (and nothing changes) for one that cannot be chosen.
    bool choose(const QString& modelID);

    // The line under a model's name: prices, context and tool support.
    static QString detailLine(const struct CatalogModel& model);

Q_SIGNALS:
    void chosen(const QString& modelID);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void rebuild();
    void syncHighlight();
    QString currentModelID() const;

    QPointer<CatalogStore> m_catalog;
    QPointer<ChatSession> m_session;
    QMetaObject::Connection m_catalogChanged;
    int m_slot = 0;
    ModelPickerState m_state;

    QLineEdit* m_search;
    QListWidget* m_list;
    QLabel* m_error;
};

} // namespace kestrolan
