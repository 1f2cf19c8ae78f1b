// Renders the chat widgets' and the main window's main states to PNG files:
// kestrolan-screenshots OUTPUT_DIR.
#include "access_panel.h"
#include "approval_sheet.h"
#include "chat_service.h"
#include "composer.h"
#include "model_picker.h"
#include "model_slot_bar.h"
#include "platform/color_scheme.h"
#include "run_task.h"
#include "screen_grab.h"
#include "transcript_view.h"
#include "window_scenes.h"
#include "workspace/workspace.h"

#include <QApplication>
#include <QDir>
#include <QFrame>
#include <QPushButton>
#include <QStyleFactory>
#include <QVBoxLayout>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace kestrolan::screenshots;
using namespace Qt::StringLiterals;

namespace {

// The chat area the main window is built around: model columns, local access, transcript and
// composer.
class ChatPane : public QWidget {
public:
    explicit ChatPane(ChatService& service)
        : access(service.defaults, this)
        , sheet(nullptr, this) {
        setWindowTitle(u"Kestrolan"_s);
        slots.setCatalog(&service.catalog);
        slots.setSession(&service.session);
        access.setSession(&service.session);
        access.setAccount(service.configuration.origin(), service.accountID);
        transcript.setSession(&service.session);
        composer.setSession(&service.session);
        sheet.setExecutor(&service.session.tools());
        auto* top = new QHBoxLayout;
        top->setContentsMargins(12, 8, 12, 0);
        top->addWidget(&slots);
        auto* line = new QFrame(this);
        line->setFrameShape(QFrame::HLine);
        line->setFrameShadow(QFrame::Sunken);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSpacing(0);
        layout->addLayout(top);
        layout->addWidget(&access);
        layout->addWidget(line);
        layout->addWidget(&transcript, 1);
        layout->addWidget(&composer);
        resize(960, 720);
    }

    ModelSlotBar slots{this};
    AccessPanel access;
    TranscriptView transcript{this};
    Composer composer{this};
    ApprovalSheet sheet;
};

const QString markdownReply = uR"(## Tide planning

The harbour has **two high tides** a day. Times below are *local*; see [the tables](https://example.com/tides).

| Day | High | Low |
|-----|------|-----|
| Mon | 06:12 | 12:30 |
| Tue | 06:51 | 13:08 |

```python
def next_high(times, now):
    return min(t for t in times if t > now)
```

- Spring tides follow the new and full moon.
- Raw <b>HTML</b> is shown as text.
)"_s;

void markdownScenes() {
    ChatService service;
    ChatPane pane(service);
    pane.show();
    shoot(pane, u"empty-chat"_s);
    service.enqueue(ChatService::answer(markdownReply, "0.000412"));
    runTask(service.session.send(u"When are the high tides this week? Show me a table and code."_s,
                                 {}));
    shoot(pane, u"markdown-reply"_s);
    pane.composer.setDraft(u"And next week?"_s);
    QApplication::setPalette(ColorScheme::palette(ColorScheme::Scheme::dark));
    settle();
    shoot(pane, u"dark-palette"_s);
    QApplication::setPalette(QApplication::style()->standardPalette());
    settle();
    pane.slots.openPicker(0);
    shoot(pane, u"model-picker"_s);
    pane.slots.picker()->hide();
}

void toolScenes() {
    ChatService service;
    ChatPane pane(service);
    QFile notes(service.folder() + u"/notes.txt");
    notes.open(QIODevice::WriteOnly);
    notes.write("high tide at 06:12\nlow tide at 12:30\n");
    notes.close();
    pane.access.setFolder(service.folder());
    service.session.tools().selectAccess(
        LocalAccessMode::askEveryTime,
        Workspace::open(QUrl::fromLocalFile(service.folder()), false),
        service.configuration.origin(), service.accountID, service.session.id(), true, false);
    pane.show();
    service.enqueue(ChatService::text(u"Let me read your notes."_s) +
                    ChatService::readCall(u"call_1"_s, u"notes.txt"_s) +
                    ChatService::finish(u"tool_calls"_s) + ChatService::billing("0.0001") +
                    ChatService::done());
    service.enqueue(
        ChatService::answer(u"High tide is at **06:12**, low tide at 12:30."_s, "0.000025"));
    auto turn = service.session.send(u"When is high tide? Check my notes."_s, {});
    runUntil([&] { return pane.sheet.isVisible(); });
    shoot(pane, u"approval-sheet"_s);
    pane.sheet.accept();
    runUntil([&] { return !service.session.isStreaming(); });
    shoot(pane, u"tool-timeline"_s);
}

void comparisonAndErrorScenes() {
    ChatService service;
    ChatPane pane(service);
    pane.show();
    service.session.addSlot(u"lab/deep"_s);
    service.enqueue(ChatService::answer(u"Swift says: high tide at **06:12**."_s, "0.00002"));
    service.enqueue(ChatService::answer(
        u"Deep says: the first high tide is at 06:12 and the second at 18:40; spring tides are "
        u"higher around the full moon."_s,
        "0.0004"));
    runTask(service.session.send(u"When is high tide?"_s, {}));
    shoot(pane, u"comparison"_s);

    ChatService failing;
    ChatPane errorPane(failing);
    errorPane.show();
    // Nothing queued: the service answers with an error.
    errorPane.composer.setDraft(u"Summarise the tide tables."_s);
    runTask(errorPane.composer.send());
    shoot(errorPane, u"error"_s);
}

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setStyle(QStyleFactory::create(u"Fusion"_s));
    QApplication::setPalette(QApplication::style()->standardPalette());
    setOutputDirectory(argc > 1 ? QString::fromLocal8Bit(argv[1]) : u"screenshots"_s);
    markdownScenes();
    toolScenes();
    comparisonAndErrorScenes();
    windowScenes();
    return 0;
}
