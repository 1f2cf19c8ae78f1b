#include "markdown_document.h"

#include <QAbstractTextDocumentLayout>
#include <QFontDatabase>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextTable>

namespace kestrolan {

namespace {

bool isCodeBlock(const QTextBlock& block) {
    const auto format = block.blockFormat();
    return format.hasProperty(QTextFormat::BlockCodeFence) ||
           format.hasProperty(QTextFormat::BlockCodeLanguage) ||
           block.charFormat().fontFixedPitch();
}

// Where a streamed text can be cut so that the part before it renders the same whatever
// follows: just after the last blank line that is outside a code fence.
qsizetype stableLength(const QString& text) {
    qsizetype boundary = 0;
    QStringView fence;
    qsizetype lineStart = 0;
    while (lineStart < text.size()) {
        qsizetype lineEnd = text.indexOf(u'\n', lineStart);
        if (lineEnd < 0)
            break; // an unfinished line may still change
        const QStringView line = QStringView(text).mid(lineStart, lineEnd - lineStart);
        const QStringView trimmed = line.trimmed();
        if (fence.isEmpty()) {
            if (trimmed.startsWith(u"```") || trimmed.startsWith(u"~~~")) {
                qsizetype length = 0;
                while (length < trimmed.size() && trimmed[length] == trimmed[0])
                    ++length;
                fence = trimmed.left(length);
            } else if (trimmed.isEmpty()) {
                boundary = lineEnd + 1;
            }
        } else if (trimmed.startsWith(fence) && trimmed.mid(fence.size()).trimmed().isEmpty() &&
                   !trimmed.mid(fence.size()).startsWith(fence[0])) {
            fence = {};
        }
        lineStart = lineEnd + 1;
    }
    return boundary;
}

} // namespace

MarkdownDocument::MarkdownDocument(QObject* parent)
    : QTextDocument(parent) {
    setUndoRedoEnabled(false);
    setDocumentMargin(0);
}

void MarkdownDocument::setText(const QString& text, bool incremental) {
    if (!incremental) {
        if (text == m_text && !m_partial)
            return;
        setMarkdown(text, features);
        styleCodeBlocks(0);
        m_text = text;
        m_partial = false;
        m_stableLength = 0;
        m_stablePosition = 0;
        return;
    }
    if (m_partial && text == m_text)
        return;
    // The document is always the stable part parsed on its own, then the tail: a new stable
    // boundary costs one parse of the part before it, every other change only the tail's.
    const qsizetype stable = stableLength(text);
    const bool sameStable = m_partial && stable == m_stableLength &&
                            QStringView(text).left(stable) == QStringView(m_text).left(stable);
    if (!sameStable) {
        setMarkdown(text.left(stable), features);
        styleCodeBlocks(0);
        m_stableLength = stable;
        m_stablePosition = stable > 0 ? characterCount() - 1 : 0;
    }
    QTextCursor cursor(this);
    cursor.setPosition(m_stablePosition);
    cursor.movePosition(QTextCursor::End, QTextCursor::KeepAnchor);
    cursor.removeSelectedText();
    const QString tail = text.mid(stable);
    if (!tail.trimmed().isEmpty()) {
        if (m_stablePosition > 0)
            cursor.insertBlock(QTextBlockFormat(), QTextCharFormat());
        cursor.insertMarkdown(tail, features);
        styleCodeBlocks(m_stablePosition);
    }
    m_text = text;
    m_partial = true;
}

bool MarkdownDocument::isOpenableLink(const QUrl& url) {
    if (!url.isValid())
        return false;
    const QString scheme = url.scheme().toLower();
    if (scheme == u"mailto")
        return !url.path().isEmpty();
    return (scheme == u"http" || scheme == u"https") && !url.host().isEmpty();
}

QList<MarkdownDocument::CodeBlock> MarkdownDocument::codeBlocks() const {
    QList<CodeBlock> blocks;
    auto* layout = documentLayout();
    bool open = false;
    for (QTextBlock block = begin(); block.isValid(); block = block.next()) {
        if (!isCodeBlock(block)) {
            open = false;
            continue;
        }
        const QRectF rect = layout->blockBoundingRect(block);
        if (open) {
            blocks.last().rect = blocks.last().rect.united(rect);
            blocks.last().code += u'\n' + block.text();
        } else {
            blocks.append({rect, block.text()});
            open = true;
        }
    }
    return blocks;
}

QVariant MarkdownDocument::loadResource(int, const QUrl&) {
    return {};
}

void MarkdownDocument::styleCodeBlocks(int fromPosition) {
    const QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    QTextCursor cursor(this);
    cursor.beginEditBlock();
    for (QTextBlock block = findBlock(fromPosition); block.isValid(); block = block.next()) {
        if (!isCodeBlock(block))
            continue;
        cursor.setPosition(block.position());
        auto format = block.blockFormat();
        format.setBackground(m_codeBackground);
        format.setLeftMargin(codeBlockMargin);
        format.setRightMargin(codeBlockMargin);
        cursor.setBlockFormat(format);
        cursor.movePosition(QTextCursor::EndOfBlock, QTextCursor::KeepAnchor);
        QTextCharFormat chars;
        chars.setFontFamilies(fixed.families());
        chars.setFontFixedPitch(true);
        cursor.mergeCharFormat(chars);
    }
    for (QTextFrame* frame : rootFrame()->childFrames()) {
        if (auto* table = qobject_cast<QTextTable*>(frame)) {
            auto format = table->format();
            format.setCellPadding(4);
            format.setCellSpacing(0);
            format.setBorderCollapse(true);
            format.setBottomMargin(blockSpacing);
            table->setFormat(format);
        }
    }
    cursor.endEditBlock();
}

} // namespace kestrolan
