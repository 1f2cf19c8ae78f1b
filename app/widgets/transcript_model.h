#pragma once

#include <QAbstractListModel>
#include <QElapsedTimer>
#include <QList>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QUuid>
#include <optional>

namespace kestrolan {

class ChatSession;
struct ToolActivity;

// The rows of a chat's transcript: for each turn the user's message and then its replies (all
// model columns in one row, side by side), with the running turn's tool timeline between the
// last message and its replies. Follows one ChatSession; while a reply streams only that
// reply's row changes, at most about 30 times a second.
class TranscriptModel : public QAbstractListModel {
    Q_OBJECT

public:
    enum class Kind { user, replies, activity };
    enum Role {
        KindRole = Qt::UserRole + 1,
        TurnRole,     // index into conversation().turns
        ActivityRole, // index into the executor's activities
        VersionRole,  // changes whenever what the row shows changes
    };
    // How often a streaming reply is shown anew.
    static constexpr int streamingIntervalMs = 33;

    explicit TranscriptModel(QObject* parent = nullptr);
    ~TranscriptModel() override;

    // The session shown; null shows nothing. The model does not own it.
    void setSession(ChatSession* session);
    ChatSession* session() const;

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;

    Kind kind(int row) const;
    int turnIndex(int row) const;
    int activityIndex(int row) const;
    quint64 version(int row) const;
    // The row of a turn's user message / replies.
    int userRow(int turn) const;
    int repliesRow(int turn) const;
    // Whether turn `turn` is the one whose replies are streaming now.
    bool isStreaming(int turn) const;

    // Whether changed rows wait to be reported.
    bool hasPendingUpdates() const { return m_flush.isActive(); }

    // Plain text of a row, for copying.
    QString plainText(int row) const;

private:
    int activityCount() const;
    int turnCount() const;
    int lastTurn() const { return turnCount() - 1; }
    void connectSession();
    void onTurnAdded(int index);
    void onTurnsRemoved(int first);
    void onReplyChanged(const QUuid& turnID);
    void onSessionChanged();
    void syncActivities();
    // Rows whose content changed are reported together, at most every streamingIntervalMs.
    void schedule();
    void flushPending();
    void removeActivityRows();
    void insertActivityRows();

    QPointer<ChatSession> m_session;
    QList<QMetaObject::Connection> m_connections;
    // Turns and activities as the view knows them, each with the version it shows. Versions are
    // unique across the model's life, so a cache keyed by them is never wrong.
    QList<QUuid> m_turnIDs;
    QList<quint64> m_userVersions;
    QList<quint64> m_replyVersions;
    QList<quint64> m_activityVersions;
    bool m_lastTurnStreaming = false;
    quint64 m_nextVersion = 1;
    QSet<QUuid> m_pendingTurns;
    bool m_pendingActivities = false;
    QTimer m_flush;
    QElapsedTimer m_sinceFlush;
};

} // namespace kestrolan
