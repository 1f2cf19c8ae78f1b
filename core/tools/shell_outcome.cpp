#include "tools/shell_outcome.h"

#include "support/json_text.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTextBoundaryFinder>

namespace kestrolan {

namespace {

QByteArray literal(bool value) {
    return value ? QByteArrayLiteral("true") : QByteArrayLiteral("false");
}

// Keys in their fixed order, which a sorting encoder would not keep.
QByteArray encode(const QString& output, qint32 exitStatus, bool truncated, bool timedOut) {
    return QByteArrayLiteral("{\"output\":") + jsonStringLiteral(output) +
           QByteArrayLiteral(",\"exit_status\":") + QByteArray::number(exitStatus) +
           QByteArrayLiteral(",\"truncated\":") + literal(truncated) +
           QByteArrayLiteral(",\"timed_out\":") + literal(timedOut) +
           QByteArrayLiteral(",\"untrusted\":true}");
}

// The first half of the user-perceived characters, so that no character is split.
QString firstHalf(const QString& text) {
    const qsizetype characters = graphemeCount(text);
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (qsizetype i = 0; i < characters / 2; ++i)
        finder.toNextBoundary();
    return text.first(finder.position());
}

} // namespace

ShellOutcome ShellOutcome::fromRun(QByteArrayView output, qint32 exitStatus, bool truncated,
                                   bool timedOut) {
    QString text = QString::fromUtf8(output);
    if (truncated)
        text += u"\n[output truncated; command stopped]";
    if (timedOut)
        text += u"\n[30-second command deadline; command stopped]";

    bool resultTruncated = truncated;
    QByteArray json = encode(text, exitStatus, resultTruncated, timedOut);
    while (json.size() > maxResultBytes && !text.isEmpty()) {
        resultTruncated = true;
        text = firstHalf(text);
        json = encode(text, exitStatus, resultTruncated, timedOut);
    }
    return {QString::fromUtf8(json), truncated || timedOut || exitStatus >= 128};
}

} // namespace kestrolan
