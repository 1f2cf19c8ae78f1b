#pragma once

#include <QColor>
#include <QList>
#include <QRectF>
#include <QString>
#include <QTextDocument>
#include <QUrl>

namespace kestrolan {

// A QTextDocument that shows model text as Markdown and nothing more: raw HTML stays text, no
// image or other resource is ever loaded, and links only open when clicked (see
// isOpenableLink). While a reply streams, setText re-parses only the tail after the last
// paragraph break outside a code fence, so a long reply costs what its last paragraph costs.
class MarkdownDocument : public QTextDocument {
    Q_OBJECT

public:
    // GitHub dialect without raw HTML and without underline-by-underscore.
    static constexpr QTextDocument::MarkdownFeatures features =
        QTextDocument::MarkdownFeatures(0x0f6c);
    static constexpr int codeBlockMargin = 6;
    // Space below a table, which the importer leaves flush against what follows.
    static constexpr int blockSpacing = 8;

    explicit MarkdownDocument(QObject* parent = nullptr);

    // Shows `text`. With `incremental` (a reply still streaming), text that extends what is
    // shown has only its part after the last stable boundary parsed again; without it the whole
    // text is parsed, also when only the last call was incremental.
    void setText(const QString& text, bool incremental = false);
    const QString& text() const { return m_text; }

    // The schemes a click may open in the browser: http, https and mailto.
    static bool isOpenableLink(const QUrl& url);
    // Code blocks are shaded with this colour (a translucent grey suits light and dark).
    void setCodeBackground(const QColor& color) { m_codeBackground = color; }

    // Each fenced or indented code block: its area in document coordinates and its text.
    struct CodeBlock {
        QRectF rect;
        QString code;
    };
    QList<CodeBlock> codeBlocks() const;

protected:
    // Nothing is loaded: images stay their alt text, remote or local.
    QVariant loadResource(int type, const QUrl& name) override;

private:
    void styleCodeBlocks(int fromPosition);

    QString m_text;
    bool m_partial = false;
    QColor m_codeBackground = QColor(127, 127, 127, 38);
    // Characters of m_text up to the last boundary after which a paragraph may still change,
    // and the document position where that part's rendering ends.
    qsizetype m_stableLength = 0;
    int m_stablePosition = 0;
};

} // namespace kestrolan
