#include "transcript_model.h"

#include "conversation/chat_session.h"
#include "tools/tool_activity.h"

namespace kestrolan {

TranscriptModel::TranscriptModel(QObject* parent)
    : QAbstractListModel(parent) {
    m_flush.setSingleShot(true);
    connect(&m_flush, &QTimer::timeout, this, &TranscriptModel::flushPending);
    m_sinceFlush.start();
}

TranscriptModel::~TranscriptModel() = default;

ChatSession* TranscriptModel::session() const {
    return m_session;
}

void TranscriptModel::setSession(ChatSession* session) {
    if (session == m_session)
        return;
    beginResetModel();
    for (const auto& connection : std::as_const(m_connections))
        disconnect(connection);
    m_connections.clear();
    m_session = session;
    m_turnIDs.clear();
    m_userVersions.clear();
    m_replyVersions.clear();
    m_activityVersions.clear();
    m_pendingTurns.clear();
    m_pendingActivities = false;
    m_flush.stop();
    if (m_session) {
        connectSession();
        for (const auto& turn : m_session->conversation().turns) {
            m_turnIDs.append(turn.id);
            m_userVersions.append(m_nextVersion++);
            m_replyVersions.append(m_nextVersion++);
        }
        if (!m_turnIDs.isEmpty()) {
            for (qsizetype i = 0; i < m_session->tools().activities().size(); ++i)
                m_activityVersions.append(m_nextVersion++);
        }
        m_lastTurnStreaming = m_session->isStreaming();
    }
    endResetModel();
}

void TranscriptModel::connectSession() {
    ChatSession* session = m_session;
    m_connections = {
        connect(session, &ChatSession::turnAdded, this, &TranscriptModel::onTurnAdded),
        connect(session, &ChatSession::turnsRemoved, this, &TranscriptModel::onTurnsRemoved),
        connect(session, &ChatSession::transcriptReset, this,
                [this] {
                    ChatSession* current = m_session;
                    m_session = nullptr;
                    setSession(current);
                }),
        connect(session, &ChatSession::replyChanged, this,
                [this](const QUuid& turnID, int) { onReplyChanged(turnID); }),
        connect(session, &ChatSession::changed, this, &TranscriptModel::onSessionChanged),
        connect(&session->tools(), &ToolExecutor::activitiesChanged, this,
                &TranscriptModel::syncActivities),
        connect(session, &QObject::destroyed, this, [this] { setSession(nullptr); }),
    };
}

int TranscriptModel::turnCount() const {
    return int(m_turnIDs.size());
}

int TranscriptModel::activityCount() const {
    return int(m_activityVersions.size());
}

int TranscriptModel::rowCount(const QModelIndex& parent) const {
    if (parent.isValid())
        return 0;
    return 2 * turnCount() + activityCount();
}

TranscriptModel::Kind TranscriptModel::kind(int row) const {
    const int last = lastTurn();
    if (row < 2 * last)
        return row % 2 == 0 ? Kind::user : Kind::replies;
    const int offset = row - 2 * last;
    if (offset == 0)
        return Kind::user;
    return offset <= activityCount() ? Kind::activity : Kind::replies;
}

int TranscriptModel::turnIndex(int row) const {
    return row < 2 * lastTurn() ? row / 2 : lastTurn();
}

int TranscriptModel::activityIndex(int row) const {
    return kind(row) == Kind::activity ? row - 2 * lastTurn() - 1 : -1;
}

int TranscriptModel::userRow(int turn) const {
    return 2 * turn;
}

int TranscriptModel::repliesRow(int turn) const {
    return turn == lastTurn() ? 2 * turn + activityCount() + 1 : 2 * turn + 1;
}

quint64 TranscriptModel::version(int row) const {
    switch (kind(row)) {
    case Kind::user:
        return m_userVersions.value(turnIndex(row));
    case Kind::replies:
        return m_replyVersions.value(turnIndex(row));
    case Kind::activity:
        return m_activityVersions.value(activityIndex(row));
    }
    return 0;
}

bool TranscriptModel::isStreaming(int turn) const {
    return m_session && m_session->isStreaming() && turn == lastTurn();
}

QVariant TranscriptModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount() || !m_session)
        return {};
    const int row = index.row();
    switch (role) {
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole:
        return plainText(row);
    case KindRole:
        return int(kind(row));
    case TurnRole:
        return turnIndex(row);
    case ActivityRole:
        return activityIndex(row);
    case VersionRole:
        return version(row);
    default:
        return {};
    }
}

QString TranscriptModel::plainText(int row) const {
    if (!m_session || row < 0 || row >= rowCount())
        return {};
    const auto& turns = m_session->conversation().turns;
    const int turn = turnIndex(row);
    switch (kind(row)) {
    case Kind::user: {
        if (turn >= turns.size())
            return {};
        QString text = turns[turn].user;
        for (const auto& attachment : turns[turn].attachments.value_or(QList<WireAttachment>()))
            text += u"\n[" + attachment.name + u']';
        return text;
    }
    case Kind::replies: {
        if (turn >= turns.size())
            return {};
        const auto& replies = turns[turn].replies;
        QStringList parts;
        for (const auto& reply : replies)
            parts.append(replies.size() > 1 ? reply.model + u":\n" + reply.text : reply.text);
        return parts.join(u"\n\n");
    }
    case Kind::activity: {
        const auto& activities = m_session->tools().activities();
        const int index = activityIndex(row);
        if (index >= activities.size())
            return {};
        const auto& activity = activities[index];
        return activity.call.function.name + u' ' + activity.displayArguments() + u" — " +
               ToolActivity::toString(activity.state);
    }
    }
    return {};
}

void TranscriptModel::removeActivityRows() {
    if (m_activityVersions.isEmpty())
        return;
    const int first = 2 * lastTurn() + 1;
    beginRemoveRows({}, first, first + activityCount() - 1);
    m_activityVersions.clear();
    endRemoveRows();
}

void TranscriptModel::insertActivityRows() {
    if (!m_session || m_turnIDs.isEmpty())
        return;
    const int count = int(m_session->tools().activities().size());
    if (count == 0)
        return;
    const int first = 2 * lastTurn() + 1;
    beginInsertRows({}, first, first + count - 1);
    for (int i = 0; i < count; ++i)
        m_activityVersions.append(m_nextVersion++);
    endInsertRows();
}

void TranscriptModel::onTurnAdded(int index) {
    const auto& turns = m_session->conversation().turns;
    if (index != turnCount() || index >= turns.size()) {
        // Not an append the view can follow: show the transcript anew.
        ChatSession* current = m_session;
        m_session = nullptr;
        setSession(current);
        return;
    }
    removeActivityRows();
    const int first = 2 * turnCount();
    beginInsertRows({}, first, first + 1);
    m_turnIDs.append(turns[index].id);
    m_userVersions.append(m_nextVersion++);
    m_replyVersions.append(m_nextVersion++);
    endInsertRows();
    insertActivityRows();
}

void TranscriptModel::onTurnsRemoved(int first) {
    if (first < 0 || first >= turnCount())
        return;
    removeActivityRows();
    beginRemoveRows({}, 2 * first, rowCount() - 1);
    m_turnIDs.resize(first);
    m_userVersions.resize(first);
    m_replyVersions.resize(first);
    endRemoveRows();
    insertActivityRows();
}

void TranscriptModel::onReplyChanged(const QUuid& turnID) {
    m_pendingTurns.insert(turnID);
    schedule();
}

void TranscriptModel::onSessionChanged() {
    if (!m_session)
        return;
    const auto& turns = m_session->conversation().turns;
    if (turns.size() != m_turnIDs.size() ||
        (!turns.isEmpty() && turns.last().id != m_turnIDs.last())) {
        ChatSession* current = m_session;
        m_session = nullptr;
        setSession(current);
        return;
    }
    // The last replies row shows whether the turn streams and the charge summary.
    if (!m_turnIDs.isEmpty() && m_session->isStreaming() != m_lastTurnStreaming) {
        m_lastTurnStreaming = m_session->isStreaming();
        m_pendingTurns.insert(m_turnIDs.last());
        schedule();
    } else if (!m_turnIDs.isEmpty() && !m_lastTurnStreaming) {
        m_pendingTurns.insert(m_turnIDs.last());
        schedule();
    }
}

void TranscriptModel::syncActivities() {
    if (!m_session || m_turnIDs.isEmpty())
        return;
    const int wanted = int(m_session->tools().activities().size());
    const int first = 2 * lastTurn() + 1;
    if (wanted < activityCount()) {
        beginRemoveRows({}, first + wanted, first + activityCount() - 1);
        m_activityVersions.resize(wanted);
        endRemoveRows();
    } else if (wanted > activityCount()) {
        beginInsertRows({}, first + activityCount(), first + wanted - 1);
        while (activityCount() < wanted)
            m_activityVersions.append(m_nextVersion++);
        endInsertRows();
    }
    m_pendingActivities = true;
    schedule();
}

void TranscriptModel::schedule() {
    if (m_flush.isActive())
        return;
    const qint64 wait = streamingIntervalMs - m_sinceFlush.elapsed();
    m_flush.start(int(std::clamp<qint64>(wait, 0, streamingIntervalMs)));
}

void TranscriptModel::flushPending() {
    m_sinceFlush.restart();
    const auto turns = std::exchange(m_pendingTurns, {});
    for (const QUuid& id : turns) {
        const qsizetype turn = m_turnIDs.lastIndexOf(id);
        if (turn < 0)
            continue;
        m_replyVersions[turn] = m_nextVersion++;
        const QModelIndex changed = index(repliesRow(int(turn)));
        Q_EMIT dataChanged(changed, changed);
    }
    if (std::exchange(m_pendingActivities, false) && activityCount() > 0) {
        for (auto& version : m_activityVersions)
            version = m_nextVersion++;
        const int first = 2 * lastTurn() + 1;
        Q_EMIT dataChanged(index(first), index(first + activityCount() - 1));
    }
}

} // namespace kestrolan
