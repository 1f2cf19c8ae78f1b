#include "transcript_delegate.h"

#include "conversation/chat_session.h"
#include "markdown_document.h"
#include "tools/tool_activity.h"
#include "transcript_model.h"

#include <QAbstractItemView>
#include <QAbstractTextDocumentLayout>
#include <QFontDatabase>
#include <QPainter>
#include <QPainterPath>
#include <QTimer>

namespace kestrolan {

namespace {

enum class Tone { normal, muted, warning, error, mono };

struct Line {
    QString text;
    Tone tone = Tone::normal;
    QRect rect;
    int maxLines = 0; // 0: wrap freely; otherwise at most this many lines, each elided
};

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() < 128;
}

QColor toneColor(Tone tone, const QPalette& palette) {
    switch (tone) {
    case Tone::muted:
    case Tone::mono:
        return palette.color(QPalette::PlaceholderText);
    case Tone::warning:
        return isDark(palette) ? QColor(0xf0, 0xb4, 0x29) : QColor(0x9a, 0x5b, 0x00);
    case Tone::error:
        return isDark(palette) ? QColor(0xff, 0x7b, 0x72) : QColor(0xb3, 0x26, 0x1e);
    case Tone::normal:
        break;
    }
    return palette.color(QPalette::Text);
}

QFont smallFont(const QFont& font) {
    QFont small = font;
    small.setPointSizeF(font.pointSizeF() * 0.88);
    return small;
}

QFont monoFont(const QFont& font) {
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPointSizeF(font.pointSizeF() * 0.88);
    return mono;
}

QFont lineFont(Tone tone, const QFont& font) {
    return tone == Tone::mono ? monoFont(font) : smallFont(font);
}

// The first `maxLines` lines of `text`, each cut to `width`.
QString clipped(const QString& text, int maxLines, int width, const QFontMetrics& metrics) {
    QStringList lines = text.split(u'\n');
    const bool more = lines.size() > maxLines;
    lines = lines.mid(0, maxLines);
    for (auto& line : lines)
        line = metrics.elidedText(line, Qt::ElideRight, width);
    if (more && !lines.isEmpty())
        lines.last() = metrics.elidedText(lines.last() + u" …", Qt::ElideLeft, width);
    return lines.join(u'\n');
}

int lineHeight(const Line& line, int width, const QFont& font) {
    const QFontMetrics metrics(lineFont(line.tone, font));
    if (line.maxLines > 0) {
        const int count = std::min<int>(int(line.text.count(u'\n')) + 1, line.maxLines);
        return count * metrics.lineSpacing();
    }
    return metrics.boundingRect(QRect(0, 0, width, 1 << 20), Qt::TextWordWrap, line.text).height();
}

// Places `lines` one under the other from `top`, returns the bottom.
int placeLines(QList<Line>& lines, int left, int top, int width, const QFont& font) {
    for (auto& line : lines) {
        const int height = lineHeight(line, width, font);
        line.rect = QRect(left, top + 3, width, height);
        top += height + 3;
    }
    return top;
}

QSize buttonSize(const QString& text, const QFont& font) {
    const QFontMetrics metrics(smallFont(font));
    return {metrics.horizontalAdvance(text) + 14, metrics.height() + 6};
}

QString elapsedText(double seconds) {
    return seconds < 10 ? QString::number(seconds, 'f', 1) + u" s"
                        : QString::number(qRound(seconds)) + u" s";
}

QString stateLabel(ToolActivity::State state) {
    using State = ToolActivity::State;
    switch (state) {
    case State::preparing:
        return QStringLiteral("Preparing");
    case State::awaitingApproval:
        return QStringLiteral("Awaiting approval");
    case State::reading:
        return QStringLiteral("Reading");
    case State::searching:
        return QStringLiteral("Searching");
    case State::editing:
        return QStringLiteral("Editing");
    case State::running:
        return QStringLiteral("Running");
    case State::completed:
        return QStringLiteral("Completed");
    case State::denied:
        return QStringLiteral("Denied");
    case State::stopped:
        return QStringLiteral("Stopped");
    case State::failed:
        return QStringLiteral("Failed");
    case State::uncertain:
        return QStringLiteral("Uncertain");
    }
    return {};
}

Tone stateTone(ToolActivity::State state) {
    using State = ToolActivity::State;
    switch (state) {
    case State::denied:
    case State::failed:
        return Tone::error;
    case State::uncertain:
    case State::stopped:
    case State::awaitingApproval:
        return Tone::warning;
    default:
        return Tone::muted;
    }
}

int viewWidth(const QStyleOptionViewItem& option) {
    if (const auto* view = qobject_cast<const QAbstractItemView*>(option.widget))
        return view->viewport()->width();
    return option.rect.width();
}

} // namespace

struct TranscriptDelegate::Layout {
    struct Column {
        QRect card;
        QString header;
        QRect headerRect;
        QRect body;
        MarkdownDocument* document = nullptr;
        int documentHeight = 0;
        QList<Line> lines;
        QRect copy;
        QString copyText;
    };
    TranscriptModel::Kind kind = TranscriptModel::Kind::user;
    QRect card;
    QList<Column> columns;
    QList<Line> lines; // under the columns (charge summary) or inside an activity card
    QRect edit;
    QRect regenerate;
    int height = 0;
};

TranscriptDelegate::TranscriptDelegate(QObject* parent)
    : QStyledItemDelegate(parent) {}

TranscriptDelegate::~TranscriptDelegate() = default;

void TranscriptDelegate::reset() {
    m_documents.clear();
    m_heights.clear();
}

MarkdownDocument* TranscriptDelegate::document(const TranscriptModel& model, int row, int column,
                                               const QString& text, bool markdown, bool streaming,
                                               int width) const {
    const quint64 version = model.version(row);
    Entry& entry = m_documents[Key{row, column}];
    if (!entry.document) {
        entry.document = std::make_shared<MarkdownDocument>();
        ++m_documentsBuilt;
        entry.version = 0;
    }
    if (entry.version != version) {
        if (markdown)
            entry.document->setText(text, streaming);
        else
            entry.document->setPlainText(text);
        entry.version = version;
    }
    if (entry.document->textWidth() != width)
        entry.document->setTextWidth(width);
    entry.lastUse = ++m_useCounter;
    return entry.document.get();
}

void TranscriptDelegate::evictOldDocuments() const {
    if (m_documents.size() <= maxCachedDocuments)
        return;
    QList<quint64> uses;
    uses.reserve(m_documents.size());
    for (const auto& entry : std::as_const(m_documents))
        uses.append(entry.lastUse);
    std::nth_element(uses.begin(), uses.begin() + (uses.size() - maxCachedDocuments), uses.end());
    const quint64 oldestKept = uses[uses.size() - maxCachedDocuments];
    m_documents.removeIf(
        [oldestKept](const auto& item) { return item.value().lastUse < oldestKept; });
}

TranscriptDelegate::Layout TranscriptDelegate::layout(const QStyleOptionViewItem& option,
                                                      const QModelIndex& index, bool exact) const {
    Layout result;
    const auto* model = qobject_cast<const TranscriptModel*>(index.model());
    if (!model || !model->session())
        return result;
    ChatSession& session = *model->session();
    const int row = index.row();
    const int width = std::max(200, viewWidth(option));
    const int content = width - 2 * margin;
    const QFont& font = option.font;
    const QFontMetrics metrics(font);
    const int turnIndex = model->turnIndex(row);
    const auto& turns = session.conversation().turns;
    result.kind = model->kind(row);
    if (turnIndex < 0 || turnIndex >= turns.size())
        return result;
    const auto& turn = turns[turnIndex];

    // A text block: the exact document when it may be built or is cached, else an estimate.
    auto textBlock = [&](int column, const QString& text, bool markdown, bool streaming,
                         int textWidth, MarkdownDocument** document) {
        const auto cached = m_documents.constFind(Key{row, column});
        if (exact || (cached != m_documents.cend() && cached->version == model->version(row))) {
            *document = this->document(*model, row, column, text, markdown, streaming, textWidth);
            return int(std::ceil((*document)->size().height()));
        }
        *document = nullptr;
        // Characters per line from the average advance; every paragraph starts a line.
        const int perLine = std::max(1, textWidth / std::max(1, metrics.averageCharWidth()));
        int lines = 0;
        for (const auto paragraph : QStringView(text).split(u'\n'))
            lines += 1 + int(paragraph.size()) / perLine;
        return lines * metrics.lineSpacing();
    };

    int top = margin / 2;
    switch (result.kind) {
    case TranscriptModel::Kind::user: {
        const int bubbleWidth = std::max(160, content * 4 / 5);
        Layout::Column column;
        int textHeight =
            textBlock(0, turn.user, false, false, bubbleWidth - 2 * padding, &column.document);
        int textWidth = bubbleWidth - 2 * padding;
        if (column.document)
            textWidth = std::min(textWidth, int(std::ceil(column.document->idealWidth())));
        for (const auto& attachment : turn.attachments.value_or(QList<WireAttachment>()))
            column.lines.append({u"Attached: " + attachment.name, Tone::muted});
        for (const auto& line : std::as_const(column.lines))
            textWidth =
                std::max(textWidth, QFontMetrics(smallFont(font)).horizontalAdvance(line.text));
        textWidth = std::min(textWidth, bubbleWidth - 2 * padding);
        const int left = margin + content - textWidth - 2 * padding;
        column.body = QRect(left + padding, top + padding, textWidth, textHeight);
        column.documentHeight = textHeight;
        const int linesBottom =
            placeLines(column.lines, column.body.left(), column.body.bottom() + 1, textWidth, font);
        column.card = QRect(left, top, textWidth + 2 * padding, linesBottom - top + padding);
        column.copyText = turn.user;
        const QSize copySize = buttonSize(QStringLiteral("Copy"), font);
        const QSize editSize = buttonSize(QStringLiteral("Edit"), font);
        const int buttonsTop = column.card.bottom() + 5;
        result.edit = QRect(QPoint(margin + content - editSize.width(), buttonsTop), editSize);
        column.copy =
            QRect(QPoint(result.edit.left() - 6 - copySize.width(), buttonsTop), copySize);
        result.card = column.card;
        result.height = result.edit.bottom() + margin / 2;
        result.columns.append(column);
        break;
    }
    case TranscriptModel::Kind::replies: {
        const bool streaming = model->isStreaming(turnIndex);
        const int count = std::max<int>(1, int(turn.replies.size()));
        const int columnWidth = (content - (count - 1) * columnGap) / count;
        int bottom = top;
        for (int i = 0; i < count; ++i) {
            Layout::Column column;
            const int left = margin + i * (columnWidth + columnGap);
            const int inner = columnWidth - 2 * padding;
            const QFontMetrics small(smallFont(font));
            int y = top + padding;
            if (i < turn.replies.size()) {
                const auto& reply = turn.replies[i];
                column.header = reply.model;
                column.headerRect = QRect(left + padding, y, inner, small.height());
                y += small.height() + 6;
                const int textHeight =
                    reply.text.isEmpty()
                        ? 0
                        : textBlock(i, reply.text, true, streaming, inner, &column.document);
                column.body = QRect(left + padding, y, inner, textHeight);
                column.documentHeight = textHeight;
                y += textHeight;
                const bool replyStreaming =
                    streaming && reply.meta.isEmpty() &&
                    reply.state == SavedConversation::Reply::State::complete;
                if (replyStreaming)
                    column.lines.append({QStringLiteral("Streaming…"), Tone::muted});
                bool stoppedShown = false;
                for (const auto& meta : reply.meta)
                    stoppedShown = stoppedShown || meta.text == ChatSession::stoppedLine();
                if (reply.state == SavedConversation::Reply::State::stopped && !stoppedShown)
                    column.lines.append({ChatSession::stoppedLine(), Tone::warning});
                if (reply.state == SavedConversation::Reply::State::error && reply.error) {
                    bool inMeta = false;
                    for (const auto& meta : reply.meta)
                        inMeta = inMeta || meta.text == reply.error->message;
                    if (!inMeta)
                        column.lines.append({reply.error->message, Tone::error});
                }
                for (const auto& meta : reply.meta)
                    column.lines.append({meta.error ? u"⚠ " + meta.text : meta.text,
                                         meta.error ? Tone::warning : Tone::muted});
                column.copyText = reply.text;
            } else {
                column.lines.append(
                    streaming ? Line{QStringLiteral("Waiting for the reply…"), Tone::muted}
                              : Line{session.errorMessage().value_or(QString()), Tone::error});
                y -= 3;
            }
            y = placeLines(column.lines, left + padding, y, inner, font);
            if (!column.copyText.isEmpty() && !streaming) {
                const QSize size = buttonSize(QStringLiteral("Copy"), font);
                column.copy = QRect(QPoint(left + padding, y + 6), size);
                y = column.copy.bottom() + 1;
            }
            column.card = QRect(left, top, columnWidth, y - top + padding);
            bottom = std::max(bottom, column.card.bottom());
            result.columns.append(column);
        }
        // Comparison cards share one height.
        for (auto& column : result.columns)
            column.card.setBottom(bottom);
        int y = bottom + 1;
        const bool lastTurn = turnIndex == turns.size() - 1;
        // One reply carries its own charge in its meta lines; a comparison adds the turn's total.
        if (lastTurn && !streaming && turn.replies.size() > 1 &&
            (session.charges().rounds > 0 || session.billing())) {
            result.lines.append(
                {session.chargeSummary(), session.charges().pending ? Tone::warning : Tone::muted});
            y = placeLines(result.lines, margin, y + 3, content, font);
        }
        if (lastTurn && !streaming && !turn.replies.isEmpty()) {
            const QSize size = buttonSize(QStringLiteral("Regenerate"), font);
            result.regenerate = QRect(QPoint(margin, y + 6), size);
            y = result.regenerate.bottom() + 1;
        }
        result.height = y + margin;
        break;
    }
    case TranscriptModel::Kind::activity: {
        const auto& activities = session.tools().activities();
        const int activityIndex = model->activityIndex(row);
        if (activityIndex < 0 || activityIndex >= activities.size())
            return result;
        const auto& activity = activities[activityIndex];
        const int indent = margin + 24;
        const int inner = width - indent - margin - 2 * padding;
        QString heading = stateLabel(activity.state) + u" · " + activity.call.function.name;
        if (activity.elapsed)
            heading += u" · " + elapsedText(*activity.elapsed);
        result.lines.append({heading, stateTone(activity.state), {}, 1});
        const QFontMetrics mono(monoFont(font));
        result.lines.append(
            {clipped(activity.displayArguments(), 2, inner, mono), Tone::mono, {}, 2});
        const QString shown = activity.displayResult();
        if (!shown.isEmpty())
            result.lines.append({clipped(shown, 3, inner, mono), Tone::mono, {}, 3});
        const int bottom =
            placeLines(result.lines, indent + padding, top + padding - 3, inner, font);
        result.card = QRect(indent, top, width - indent - margin, bottom - top + padding);
        result.height = result.card.bottom() + margin / 2;
        break;
    }
    }
    return result;
}

QSize TranscriptDelegate::sizeHint(const QStyleOptionViewItem& option,
                                   const QModelIndex& index) const {
    const auto* model = qobject_cast<const TranscriptModel*>(index.model());
    if (!model)
        return {};
    const int width = viewWidth(option);
    const quint64 version = model->version(index.row());
    const auto known = m_heights.constFind(version);
    if (known != m_heights.cend() && known->width == width)
        return {width, known->height};
    const Layout computed = layout(option, index, false);
    bool exact = true;
    for (const auto& column : computed.columns)
        exact = exact && (column.document || column.body.height() == 0);
    m_heights.insert(version, {width, computed.height, exact});
    return {width, computed.height};
}

void TranscriptDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                               const QModelIndex& index) const {
    const auto* model = qobject_cast<const TranscriptModel*>(index.model());
    if (!model)
        return;
    const Layout computed = layout(option, index, true);
    evictOldDocuments();
    // A row sized by an estimate is sized again now that its documents exist.
    const quint64 version = model->version(index.row());
    const int width = viewWidth(option);
    const auto known = m_heights.constFind(version);
    if (known == m_heights.cend() || known->height != computed.height || known->width != width) {
        m_heights.insert(version, {width, computed.height, true});
        QTimer::singleShot(0, const_cast<TranscriptDelegate*>(this),
                           [self = const_cast<TranscriptDelegate*>(this),
                            persistent = QPersistentModelIndex(index)] {
                               if (persistent.isValid())
                                   Q_EMIT self->sizeHintChanged(persistent);
                           });
    }

    const QPalette& palette = option.palette;
    const bool dark = isDark(palette);
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    painter->translate(option.rect.topLeft());
    const bool hovered = option.state & QStyle::State_MouseOver;
    const bool current = option.state & QStyle::State_HasFocus;

    auto drawCard = [&](const QRect& rect, const QColor& fill, bool outline) {
        QPainterPath path;
        path.addRoundedRect(QRectF(rect).adjusted(0.5, 0.5, -0.5, -0.5), 8, 8);
        painter->fillPath(path, fill);
        if (outline) {
            QColor border = palette.color(QPalette::Mid);
            border.setAlpha(dark ? 140 : 90);
            painter->setPen(QPen(border, 1));
            painter->drawPath(path);
        }
        if (current) {
            painter->setPen(QPen(palette.color(QPalette::Highlight), 1.5));
            painter->drawPath(path);
        }
    };
    auto drawButton = [&](const QRect& rect, const QString& text) {
        if (rect.isEmpty())
            return;
        QColor fill = palette.color(QPalette::Button);
        if (!hovered)
            fill.setAlpha(dark ? 150 : 120);
        QPainterPath path;
        path.addRoundedRect(QRectF(rect).adjusted(0.5, 0.5, -0.5, -0.5), 5, 5);
        painter->fillPath(path, fill);
        painter->setPen(QPen(palette.color(QPalette::Mid), 1));
        painter->drawPath(path);
        painter->setFont(smallFont(option.font));
        painter->setPen(palette.color(QPalette::ButtonText));
        painter->drawText(rect, Qt::AlignCenter, text);
    };
    auto drawLines = [&](const QList<Line>& lines) {
        for (const auto& line : lines) {
            painter->setFont(lineFont(line.tone, option.font));
            painter->setPen(toneColor(line.tone, palette));
            painter->drawText(line.rect, Qt::TextWordWrap | Qt::AlignLeft | Qt::AlignTop,
                              line.text);
        }
    };
    auto drawDocument = [&](const Layout::Column& column) {
        if (!column.document)
            return;
        painter->save();
        painter->translate(column.body.topLeft());
        QAbstractTextDocumentLayout::PaintContext context;
        context.palette = palette;
        context.palette.setColor(QPalette::Text, palette.color(QPalette::Text));
        context.clip = QRectF(0, 0, column.body.width(), column.body.height());
        column.document->documentLayout()->draw(painter, context);
        painter->restore();
        for (const auto& block : column.document->codeBlocks()) {
            const QSize size = buttonSize(QStringLiteral("Copy code"), option.font);
            const QRect rect(column.body.left() + int(block.rect.right()) - size.width() - 4,
                             column.body.top() + int(block.rect.top()) + 4, size.width(),
                             size.height());
            drawButton(rect, QStringLiteral("Copy code"));
        }
    };

    QColor userFill = palette.color(QPalette::Highlight);
    userFill.setAlpha(dark ? 70 : 40);
    QColor replyFill = palette.color(QPalette::Base);
    QColor activityFill = palette.color(QPalette::AlternateBase);

    switch (computed.kind) {
    case TranscriptModel::Kind::user:
        for (const auto& column : computed.columns) {
            drawCard(column.card, userFill, false);
            drawDocument(column);
            drawLines(column.lines);
            drawButton(column.copy, QStringLiteral("Copy"));
        }
        drawButton(computed.edit, QStringLiteral("Edit"));
        break;
    case TranscriptModel::Kind::replies:
        for (const auto& column : computed.columns) {
            drawCard(column.card, replyFill, true);
            if (!column.header.isEmpty()) {
                QFont header = smallFont(option.font);
                header.setBold(true);
                painter->setFont(header);
                painter->setPen(toneColor(Tone::muted, palette));
                painter->drawText(column.headerRect, Qt::AlignLeft | Qt::AlignVCenter,
                                  QFontMetrics(header).elidedText(column.header, Qt::ElideRight,
                                                                  column.headerRect.width()));
            }
            drawDocument(column);
            drawLines(column.lines);
            drawButton(column.copy, QStringLiteral("Copy"));
        }
        drawLines(computed.lines);
        drawButton(computed.regenerate, QStringLiteral("Regenerate"));
        break;
    case TranscriptModel::Kind::activity:
        drawCard(computed.card, activityFill, true);
        drawLines(computed.lines);
        break;
    }
    painter->restore();
}

QList<TranscriptDelegate::Target> TranscriptDelegate::targets(const QStyleOptionViewItem& option,
                                                              const QModelIndex& index) const {
    QList<Target> found;
    const Layout computed = layout(option, index, true);
    const QPoint origin = option.rect.topLeft();
    for (const auto& column : computed.columns) {
        if (column.document) {
            for (const auto& block : column.document->codeBlocks()) {
                const QSize size = buttonSize(QStringLiteral("Copy code"), option.font);
                const QRect rect(column.body.left() + int(block.rect.right()) - size.width() - 4,
                                 column.body.top() + int(block.rect.top()) + 4, size.width(),
                                 size.height());
                found.append({Target::Kind::copyCode, block.code, rect.translated(origin)});
            }
        }
        if (!column.copy.isEmpty())
            found.append(
                {Target::Kind::copyMessage, column.copyText, column.copy.translated(origin)});
    }
    if (!computed.edit.isEmpty())
        found.append({Target::Kind::editMessage, {}, computed.edit.translated(origin)});
    if (!computed.regenerate.isEmpty())
        found.append({Target::Kind::regenerate, {}, computed.regenerate.translated(origin)});
    return found;
}

TranscriptDelegate::Target TranscriptDelegate::targetAt(const QStyleOptionViewItem& option,
                                                        const QModelIndex& index,
                                                        const QPoint& pos) const {
    for (const auto& target : targets(option, index)) {
        if (target.rect.contains(pos))
            return target;
    }
    QRect area;
    if (auto* document = documentAt(option, index, pos, &area)) {
        const QString anchor = document->documentLayout()->anchorAt(pos - area.topLeft());
        if (!anchor.isEmpty())
            return {Target::Kind::link, anchor, area};
    }
    return {};
}

MarkdownDocument* TranscriptDelegate::documentAt(const QStyleOptionViewItem& option,
                                                 const QModelIndex& index, const QPoint& pos,
                                                 QRect* area) const {
    const Layout computed = layout(option, index, true);
    for (const auto& column : computed.columns) {
        const QRect body = column.body.translated(option.rect.topLeft());
        if (column.document && body.contains(pos)) {
            if (area)
                *area = body;
            return column.document;
        }
    }
    return nullptr;
}

} // namespace kestrolan
