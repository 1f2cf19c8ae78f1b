#pragma once

#include "conversation/chat_message.h"
#include "tools/wire_attachment.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <optional>

namespace kestrolan {

// A chat as the service keeps it: every reply of every model column, the tool transcript of
// each reply and the attachments' text, so that a loaded chat can be continued.
struct SavedConversation {
    static constexpr int currentVersion = 2;
    static constexpr qsizetype maxTurns = 1'000;
    static constexpr qsizetype maxEncodedBytes = 1'048'576;
    static constexpr qsizetype maxExchangeMessages = 24;
    static constexpr qsizetype maxCallsPerMessage = 4;

    // As the user typed them; parsed only when a request is built.
    struct Settings {
        QString system;
        QString maxTokens;
        QString temperature;
        bool operator==(const Settings&) const = default;
    };

    struct ReplyError {
        std::optional<QString> code;
        QString message;
        bool operator==(const ReplyError&) const = default;
    };

    // A line under a reply, such as its charge; `error` shows it as a warning.
    struct Meta {
        QString text;
        bool error = false;
        bool operator==(const Meta&) const = default;
    };

    struct Reply {
        enum class State { complete, error, stopped };

        QUuid id = QUuid::createUuid(); // local only
        std::optional<QList<ChatMessage>> exchanges;
        int slot = 0;
        QString model;
        QString text;
        State state = State::complete;
        std::optional<QString> finishReason;
        std::optional<ReplyError> error;
        QList<Meta> meta;

        static QString toString(State state);
        static std::optional<State> stateFromString(QStringView text);
    };

    struct Turn {
        QUuid id = QUuid::createUuid(); // local only
        std::optional<QList<WireAttachment>> attachments;
        QString user;
        QList<Reply> replies;
    };

    std::optional<int> version;
    std::optional<QString> title;
    QStringList slots;
    Settings settings;
    QList<Turn> turns;

    QJsonObject toJson() const;
    QByteArray encoded() const;
    // Reads a document without judging its content; a body that is not one throws
    // ClientError(invalidResponse). Local ids are new.
    static SavedConversation fromJson(const QByteArray& body);
    // What a loaded chat must pass: fromJson, then validate.
    static SavedConversation decode(const QByteArray& body);

    // Checks a document before it is saved and after it is loaded; the first failure throws
    // ClientError(invalidResponse).
    void validate() const;

    // The messages to send back for a reply's tool transcript, with every call that never got
    // a result answered as cancelled. Throws ClientError(invalidResponse) for a transcript that
    // is not one the app could have written.
    static QList<ChatMessage> completedExchanges(const QList<ChatMessage>& exchanges);

    // The conversation as the model sees it when the chat continues in column `slot`: each
    // user message with its attachments, then that column's completed tool exchanges and
    // answer. System text is the session's to add.
    QList<ChatMessage> inferenceMessages(int slot = 0) const;
};

} // namespace kestrolan
