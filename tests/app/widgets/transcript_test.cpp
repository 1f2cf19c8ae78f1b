#include "chat_service.h"
#include "markdown_document.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "transcript_delegate.h"
#include "transcript_model.h"
#include "transcript_view.h"

#include <QAbstractTextDocumentLayout>
#include <QDesktopServices>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>
#include <QTextBlock>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

// Receives what QDesktopServices hands to the browser for one scheme.
class LinkRecorder : public QObject {
    Q_OBJECT
public:
    QList<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl& url) { opened.append(url); }
};

// Where a link to `href` is drawn in the view, found by asking the delegate.
std::optional<QPoint> linkPosition(TranscriptView& view, int row, const QString& href) {
    const QModelIndex index = view.model()->index(row, 0);
    const QRect rect = view.visualRect(index);
    QStyleOptionViewItem option;
    option.initFrom(&view);
    option.widget = &view;
    option.font = view.font();
    option.rect = rect;
    for (int y = rect.top(); y < rect.bottom(); y += 3) {
        for (int x = rect.left(); x < rect.right(); x += 4) {
            const auto target = view.transcriptDelegate()->targetAt(option, index, {x, y});
            if (target.kind == TranscriptDelegate::Target::Kind::link && target.text == href)
                return QPoint(x, y);
        }
    }
    return std::nullopt;
}

} // namespace

TEST(TranscriptModel, AStreamingReplyUpdatesOnlyItsOwnRow) {
    ChatService service;
    TranscriptModel model;
    model.setSession(&service.session);
    for (int i = 0; i < 3; ++i) {
        service.enqueue(ChatService::answer(u"Answer %1"_s.arg(i)));
        runTask(service.session.send(u"Question %1"_s.arg(i), {}));
    }
    ASSERT_EQ(model.rowCount(), 6);
    runUntil([&] { return !model.hasPendingUpdates(); });

    // The reply arrives in many small pieces, far apart enough to be shown one by one.
    QByteArray stream;
    QString expected;
    for (int i = 0; i < 40; ++i) {
        const QString piece = u"word%1 "_s.arg(i);
        expected += piece;
        stream += ChatService::text(piece);
    }
    stream += ChatService::finish(u"stop"_s) + ChatService::billing("0.0001") + ChatService::done();
    TestResponse response = TestResponse::eventStream(stream);
    response.pieceSize = stream.size() / 40;
    response.pieceDelay = std::chrono::milliseconds(5);
    service.enqueue(std::move(response));

    QList<std::pair<int, int>> changed;
    QList<std::pair<int, int>> inserted;
    QObject::connect(&model, &QAbstractItemModel::dataChanged,
                     [&](const QModelIndex& first, const QModelIndex& last) {
                         changed.append({first.row(), last.row()});
                     });
    QObject::connect(&model, &QAbstractItemModel::rowsInserted,
                     [&](const QModelIndex&, int first, int last) {
                         inserted.append({first, last});
                     });
    QObject::connect(&model, &QAbstractItemModel::modelReset, [] { FAIL() << "model reset"; });
    runTask(service.session.send(u"Stream please"_s, {}));
    runUntil([&] { return model.plainText(7) == expected; });

    EXPECT_EQ(inserted, (QList<std::pair<int, int>>{{6, 7}}));
    ASSERT_FALSE(changed.isEmpty());
    for (const auto& [first, last] : changed) {
        EXPECT_EQ(first, 7);
        EXPECT_EQ(last, 7);
    }
    // Shown while it grew, not only at the end, yet not once per piece.
    EXPECT_GE(changed.size(), 2);
    EXPECT_LT(changed.size(), 40);
    EXPECT_EQ(model.kind(6), TranscriptModel::Kind::user);
    EXPECT_EQ(model.plainText(6), u"Stream please");
}

TEST(MarkdownDocument, ShowsRawHtmlAsTextAndLoadsNoImage) {
    TestHttpServer images;
    QTemporaryDir directory;
    const QString picture = directory.filePath(u"secret.png"_s);
    QImage(8, 8, QImage::Format_RGB32).save(picture);
    const QString imageURL = images.baseURL() + u"/pixel.png";

    MarkdownDocument document;
    document.setText(u"Before <b>bold</b> and <img src=\"x.png\"> after.\n\n"
                     u"![remote](" +
                     imageURL + u") ![local](file://" + picture +
                     u")\n\n"
                     u"Last _word_ here.\n\n```cpp\nint main() {}\n```\n"_s);
    document.setTextWidth(500);
    QImage canvas(600, 400, QImage::Format_ARGB32);
    QPainter painter(&canvas);
    document.drawContents(&painter);
    painter.end();

    const QString shown = document.toPlainText();
    // Raw HTML stays visible text, and a void tag does not swallow the rest of the reply.
    EXPECT_TRUE(shown.contains(u"<b>bold</b>")) << shown.toStdString();
    EXPECT_TRUE(shown.contains(u"after.")) << shown.toStdString();
    EXPECT_TRUE(shown.contains(u"Last word here.")) << shown.toStdString();
    // No underline from underscores.
    bool underlined = false;
    for (auto block = document.begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it)
            underlined = underlined || it.fragment().charFormat().fontUnderline();
    }
    EXPECT_FALSE(underlined);
    EXPECT_EQ(images.requestCount(), 0);
    EXPECT_FALSE(document.resource(QTextDocument::ImageResource, QUrl(imageURL)).isValid());
    EXPECT_FALSE(
        document.resource(QTextDocument::ImageResource, QUrl::fromLocalFile(picture)).isValid());
    // The code block is found for its copy button, with its exact text.
    const auto blocks = document.codeBlocks();
    ASSERT_EQ(blocks.size(), 1);
    EXPECT_EQ(blocks[0].code, u"int main() {}");
}

TEST(MarkdownDocument, AStreamedTextEndsAsIfParsedWhole) {
    const QString full =
        u"# Plan\n\nFirst paragraph with `code`.\n\n| a | b |\n|---|---|\n| 1 | 2 |\n\n"
        u"```\nline one\n\nline three\n```\n\n- one\n- two\n\nDone."_s;
    MarkdownDocument whole;
    whole.setText(full);
    MarkdownDocument streamed;
    for (qsizetype cut = 1; cut <= full.size(); cut += 7)
        streamed.setText(full.left(cut), true);
    streamed.setText(full, true);
    // While streaming the tail parse keeps the text, including the blank line inside the fence.
    EXPECT_EQ(streamed.toPlainText().remove(u'\n'), whole.toPlainText().remove(u'\n'));
    streamed.setText(full, false);
    EXPECT_EQ(streamed.toPlainText(), whole.toPlainText());
    EXPECT_EQ(streamed.codeBlocks().size(), 1);
    EXPECT_EQ(streamed.codeBlocks()[0].code, u"line one\n\nline three");
}

TEST(TranscriptView, OpensOnlyWebAndMailLinksOnClick) {
    ChatService service;
    service.enqueue(ChatService::answer(
        u"See [the docs](https://example.com/docs) or [this](javascript:alert(1)) or "
        u"[files](file:///etc/passwd)."_s));
    runTask(service.session.send(u"Links?"_s, {}));

    LinkRecorder web;
    LinkRecorder script;
    LinkRecorder files;
    QDesktopServices::setUrlHandler(u"https"_s, &web, "open");
    QDesktopServices::setUrlHandler(u"javascript"_s, &script, "open");
    QDesktopServices::setUrlHandler(u"file"_s, &files, "open");

    TranscriptView view;
    view.resize(700, 500);
    view.setSession(&service.session);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    QSignalSpy refused(&view, &TranscriptView::linkRefused);

    const auto safe = linkPosition(view, 1, u"https://example.com/docs"_s);
    const auto unsafe = linkPosition(view, 1, u"javascript:alert(1)"_s);
    const auto local = linkPosition(view, 1, u"file:///etc/passwd"_s);
    ASSERT_TRUE(safe && unsafe && local);
    // Hovering opens nothing; a click on each link does what its scheme allows.
    QTest::mouseMove(view.viewport(), *unsafe);
    EXPECT_TRUE(script.opened.isEmpty());
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, *unsafe);
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, *local);
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, *safe);

    EXPECT_TRUE(script.opened.isEmpty());
    EXPECT_TRUE(files.opened.isEmpty());
    EXPECT_EQ(web.opened, QList<QUrl>{QUrl(u"https://example.com/docs"_s)});
    EXPECT_EQ(refused.size(), 2);
    for (const auto& scheme : {u"https"_s, u"javascript"_s, u"file"_s})
        QDesktopServices::unsetUrlHandler(scheme);
}

TEST(TranscriptView, AThousandTurnsScrollWithoutBuildingEveryDocument) {
    ChatService service;
    const QUuid id = QUuid::createUuid();
    service.store(id, conversationDocument(1000, 750));
    runTask(service.session.load(id));
    ASSERT_EQ(service.session.conversation().turns.size(), 1000)
        << service.session.errorMessage().value_or(QString()).toStdString();

    TranscriptView view;
    view.resize(800, 700);
    view.setSession(&service.session);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    auto* bar = view.verticalScrollBar();
    // Page through the top of the chat, jump into its middle and then to its end, painting
    // each place as a user scrolling there would see it.
    auto showAt = [&](int value) {
        bar->setValue(value);
        view.viewport()->repaint();
        QCoreApplication::processEvents();
    };
    runUntil([&] { return bar->maximum() > 0; });
    for (int i = 0; i < 10; ++i)
        showAt(bar->value() + view.viewport()->height());
    showAt(bar->maximum() / 2);
    runUntil([&] {
        showAt(bar->maximum());
        return view.viewport()->rect().intersects(view.visualRect(view.model()->index(1999, 0)));
    });
    ASSERT_EQ(view.model()->rowCount(), 2000);

    const auto* delegate = view.transcriptDelegate();
    EXPECT_GT(delegate->documentsBuilt(), 0);
    EXPECT_LT(delegate->documentsBuilt(), 400);
    EXPECT_LE(delegate->cachedDocuments(), TranscriptDelegate::maxCachedDocuments);
    // The last row is on screen after jumping to the end.
    EXPECT_TRUE(view.viewport()->rect().intersects(view.visualRect(view.model()->index(1999, 0))));
}

#include "transcript_test.moc"
