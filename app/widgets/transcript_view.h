#pragma once

#include <QListView>
#include <QPointer>
#include <QTextEdit>
#include <QTimer>

namespace kestrolan {

class ChatSession;
class MarkdownDocument;
class TranscriptDelegate;
class TranscriptModel;

// The chat transcript: a list that lays out only what is visible. Links open in the browser
// only on click and only for http, https and mailto; code blocks and messages have copy
// buttons; a user message can be edited and sent again (after confirming that later messages
// go), and a reply regenerated. Ctrl+C copies the current message.
class TranscriptView : public QListView {
    Q_OBJECT

public:
    explicit TranscriptView(QWidget* parent = nullptr);
    ~TranscriptView() override;

    // The session shown; the view does not own it.
    void setSession(ChatSession* session);
    ChatSession* session() const;

    TranscriptModel* transcriptModel() const { return m_model; }
    TranscriptDelegate* transcriptDelegate() const { return m_delegate; }

    // The confirmation asked before an edit replaces later messages.
    static QString replaceQuestion();
    static QString replaceExplanation();

Q_SIGNALS:
    // A link the view handed to the browser, and one it refused (its scheme is not allowed).
    void linkOpened(const QUrl& url);
    void linkRefused(const QUrl& url);
    // Text put on the clipboard by a copy button or Ctrl+C.
    void copied(const QString& text);

protected:
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    void resizeEvent(QResizeEvent* event) override;
    // An empty chat says what it is for instead of showing a blank pane.
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void editTurn(int turn);
    void regenerateTurn(int turn);
    void copyText(const QString& text);
    void followNewRows();
    void openSelection(MarkdownDocument* document, const QRect& area);
    // Asks "Replace later messages?"; true when the user goes ahead.
    static bool confirmReplace(QWidget* parent);

    TranscriptModel* m_model;
    TranscriptDelegate* m_delegate;
    QTimer m_relayout;
    bool m_stickToBottom = true;
    // The message opened for selecting text, if any.
    QPointer<QTextEdit> m_selection;
};

} // namespace kestrolan
