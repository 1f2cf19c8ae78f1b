#pragma once

#include <QPointer>
#include <QWidget>

class QHBoxLayout;
class QToolButton;

namespace kestrolan {

class CatalogStore;
class ChatSession;
class ModelPicker;

// The models the chat asks, one button per reply column: a button opens the model picker for
// its column, "Compare" adds a column (up to three) and each extra column can be removed.
class ModelSlotBar : public QWidget {
    Q_OBJECT

public:
    static constexpr int maxSlots = 3;

    explicit ModelSlotBar(QWidget* parent = nullptr);
    ~ModelSlotBar() override;

    void setCatalog(CatalogStore* catalog);
    void setSession(ChatSession* session);

    // Opens the picker for a column, as a popup under its button (Ctrl+K opens column 0).
    void openPicker(int slot = 0);
    ModelPicker* picker() const { return m_picker; }

private:
    void rebuild();
    QString slotLabel(int slot) const;

    QPointer<CatalogStore> m_catalog;
    QPointer<ChatSession> m_session;
    QList<QMetaObject::Connection> m_connections;
    QHBoxLayout* m_layout;
    QList<QToolButton*> m_buttons;
    ModelPicker* m_picker;
};

} // namespace kestrolan
