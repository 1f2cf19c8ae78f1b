#include "window_scenes.h"

#include "account/account_model.h"
#include "account/desktop_auth.h"
#include "chat_service.h"
#include "conversation/chat_session.h"
#include "memory_token_store.h"
#include "model/application_model.h"
#include "platform/color_scheme.h"
#include "platform/settings_defaults.h"
#include "run_task.h"
#include "screen_grab.h"
#include "tools/tool_executor.h"
#include "widgets/access_panel.h"
#include "widgets/approval_sheet.h"
#include "windows/main_window.h"
#include "workspace/workspace.h"

#include <QApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTimeZone>

using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace kestrolan::screenshots {

namespace {

const QString streamedReply = uR"(## Packing for a two-day coastal walk

Carry **about 2 litres of water** a day; the route has one tap, at *Hollow Cove*. Check the
[tide times](https://example.com/tides) before the causeway.

| Item | Weight | Notes |
|------|-------:|-------|
| Tent | 1.4 kg | Pitch above the strand line |
| Stove | 0.3 kg | Gas canister sold in the village |
| Water | 2.0 kg | Refill at Hollow Cove |

```bash
# Sunset and tide times for the causeway, as plain text
curl -s https://example.com/tides?station=causeway | head -n 4
```

1. Cross the causeway within two hours of low tide.
2. Camp on the headland, not the beach.

> The second day is shorter but steeper; start early.
)"_s;

// A main window over its own application model, signed in when `token` is given.
class Scene {
public:
    explicit Scene(std::optional<QString> token, QDateTime now = {}) {
        ApplicationModel::Parts parts;
        parts.defaults = std::make_shared<SettingsDefaults>(m_scratch.filePath(u"settings.conf"_s));
        QProcessEnvironment environment;
        environment.insert(u"KESTROLAN_BASE_URL"_s, service.configuration.baseURL().toString());
        parts.environment = environment;
        parts.tokens =
            std::make_shared<MemoryTokenStore>(service.configuration.origin(), std::move(token));
        parts.openURL = [](const QUrl&) { return true; };
        if (now.isValid())
            parts.now = [now] { return now; };
        model = std::make_unique<ApplicationModel>(std::move(parts));
        window.setModel(model.get());
        window.resize(1200, 800);
        window.move(0, 0);
        window.show();
        runTask(model->start());
    }
    ~Scene() {
        model->chat().stop();
        runTask(model->chat().waitUntilIdle());
    }

    void send(const QString& text) { runTask(model->chat().send(text, {})); }
    AccessPanel& access() { return *window.findChild<AccessPanel*>(); }
    ApprovalSheet& sheet() { return *window.findChild<ApprovalSheet*>(); }

    ChatService service;
    std::unique_ptr<ApplicationModel> model;
    MainWindow window;

private:
    QTemporaryDir m_scratch;
};

// Saved chats spread over the sidebar's day groups, as the service lists them.
QByteArray savedChats(const QDateTime& now) {
    const std::pair<const char*, qint64> chats[] = {
        {"Coastal walk packing list", 40 * 60},  {"Tide tables for the harbour", 3 * 3600},
        {"Regex for UK postcodes", 26 * 3600},   {"Sourdough starter schedule", 3 * 86400},
        {"Quarterly budget summary", 5 * 86400}, {"Rust lifetimes explained", 24 * 86400},
        {"Trip to Lisbon", 70 * 86400},
    };
    QJsonArray list;
    for (const auto& [title, age] : chats)
        list.append(
            QJsonObject{{u"id"_s, QUuid::createUuid().toString(QUuid::WithoutBraces)},
                        {u"title"_s, QString::fromUtf8(title)},
                        {u"updated_at"_s, now.addSecs(-age).toUTC().toString(Qt::ISODateWithMs)}});
    return QJsonDocument(list).toJson(QJsonDocument::Compact);
}

void signedOutScene() {
    Scene scene(std::nullopt);
    runUntil([&] { return scene.window.page() == MainWindow::Page::signedOut; });
    shoot(scene.window, u"window-signed-out"_s);
}

void chatScenes() {
    // Mid-afternoon, so the newest chats are "Today" whenever this runs.
    const QDateTime now(QDate::currentDate(), QTime(15, 0));
    Scene scene(u"t"_s, now);
    scene.service.chatList = savedChats(now);
    runTask(scene.model->refreshHistory());
    runUntil([&] {
        return scene.window.page() == MainWindow::Page::chat &&
               scene.model->account().account().has_value() && !scene.model->savedChats().isEmpty();
    });
    shoot(scene.window, u"window-empty-chat"_s);

    // The reply arrives in pieces, as it streams.
    QByteArray stream;
    for (qsizetype at = 0; at < streamedReply.size(); at += 40)
        stream += ChatService::text(streamedReply.mid(at, 40));
    scene.service.enqueue(stream + ChatService::finish(u"stop"_s) +
                          ChatService::billing("0.000618") + ChatService::done());
    scene.send(u"I'm walking the coast path this weekend. What should I pack, and when can I "
               u"cross the causeway?"_s);
    shoot(scene.window, u"window-markdown-reply"_s);

    QApplication::setPalette(ColorScheme::palette(ColorScheme::Scheme::dark));
    shoot(scene.window, u"window-dark"_s);
    QApplication::setPalette(ColorScheme::palette(ColorScheme::Scheme::light));
    settle();

    // A new chat with a folder granted, asking before it reads a file.
    scene.model->newChat();
    QFile notes(scene.service.folder() + u"/tides.txt");
    notes.open(QIODevice::WriteOnly);
    notes.write("causeway open 09:40-13:10\n");
    notes.close();
    scene.access().setFolder(scene.service.folder());
    scene.model->chat().tools().selectAccess(
        LocalAccessMode::askEveryTime,
        Workspace::open(QUrl::fromLocalFile(scene.service.folder()), false),
        scene.service.configuration.origin(), *scene.model->account().account()->id,
        scene.model->chat().id(), true, false);
    scene.service.enqueue(ChatService::text(u"Let me check your tide notes."_s) +
                          ChatService::readCall(u"call_1"_s, u"tides.txt"_s) +
                          ChatService::finish(u"tool_calls"_s) + ChatService::billing("0.0001") +
                          ChatService::done());
    scene.service.enqueue(ChatService::answer(
        u"The causeway is open from **09:40** to **13:10**, so leave by 12:30."_s, "0.000041"));
    auto turn = scene.model->chat().send(u"When is the causeway open? Check my notes."_s, {});
    runUntil([&] { return scene.sheet().isVisible(); });
    shoot(scene.window, u"window-approval-sheet"_s);
    scene.sheet().accept();
    runUntil([&] { return !scene.model->chat().isStreaming(); });
    shoot(scene.window, u"window-tool-timeline"_s);

    // Two models answering the same question side by side.
    scene.model->newChat();
    scene.model->chat().addSlot(u"lab/deep"_s);
    scene.service.enqueue(ChatService::answer(u"Leave by **12:30** to be safe."_s, "0.00002"));
    scene.service.enqueue(ChatService::answer(
        u"The causeway opens at 09:40 and closes at 13:10. Allow 40 minutes for the crossing, "
        u"and more if the sand is soft after rain."_s,
        "0.0004"));
    scene.send(u"When should I leave to cross the causeway safely?"_s);
    shoot(scene.window, u"window-comparison"_s);
}

} // namespace

void windowScenes() {
    signedOutScene();
    chatScenes();
}

} // namespace kestrolan::screenshots
