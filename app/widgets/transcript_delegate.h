#pragma once

#include <QHash>
#include <QList>
#include <QRect>
#include <QStyledItemDelegate>
#include <memory>

namespace kestrolan {

class MarkdownDocument;
class TranscriptModel;

// Paints transcript rows: user messages, Markdown replies (comparison replies side by side),
// reply states, meta lines with warnings marked, the charge summary, tool timeline entries, and
// the message buttons. Documents are built only for rows that are painted and only the last
// ~100 are kept; a row never painted is sized by an estimate, corrected once it is painted.
class TranscriptDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    static constexpr int maxCachedDocuments = 100;
    static constexpr int margin = 12;
    static constexpr int padding = 10;
    static constexpr int columnGap = 12;

    // A clickable place in a painted row.
    struct Target {
        enum class Kind { none, link, copyCode, copyMessage, editMessage, regenerate };
        Kind kind = Kind::none;
        QString text; // the link's address or the text to copy
        QRect rect;   // in viewport coordinates
    };

    explicit TranscriptDelegate(QObject* parent = nullptr);
    ~TranscriptDelegate() override;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

    // What lies under `pos` in the row painted in `option.rect` (viewport coordinates).
    Target targetAt(const QStyleOptionViewItem& option, const QModelIndex& index,
                    const QPoint& pos) const;
    // Every clickable place of a row, in tab order.
    QList<Target> targets(const QStyleOptionViewItem& option, const QModelIndex& index) const;
    // The text column under `pos` and its area, for selecting text in place; null when none.
    MarkdownDocument* documentAt(const QStyleOptionViewItem& option, const QModelIndex& index,
                                 const QPoint& pos, QRect* area) const;

    // Documents built since construction, and those kept now.
    int documentsBuilt() const { return m_documentsBuilt; }
    int cachedDocuments() const { return int(m_documents.size()); }

    // Drops every cached document and height (palette, font or session changed).
    void reset();

private:
    struct Key {
        int row;
        int column;
        bool operator==(const Key&) const = default;
    };
    friend size_t qHash(const Key& key, size_t seed) {
        return qHashMulti(seed, key.row, key.column);
    }
    struct Entry {
        quint64 version = 0;
        std::shared_ptr<MarkdownDocument> document;
        quint64 lastUse = 0;
    };
    struct Height {
        int width = 0;
        int height = 0;
        bool exact = false;
    };
    struct Layout;

    Layout layout(const QStyleOptionViewItem& option, const QModelIndex& index, bool exact) const;
    MarkdownDocument* document(const TranscriptModel& model, int row, int column,
                               const QString& text, bool markdown, bool streaming, int width) const;
    void evictOldDocuments() const;

    mutable QHash<Key, Entry> m_documents;
    mutable QHash<quint64, Height> m_heights; // by row version
    mutable int m_documentsBuilt = 0;
    mutable quint64 m_useCounter = 0;
};

} // namespace kestrolan
