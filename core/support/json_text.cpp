#include "support/json_text.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTextBoundaryFinder>

namespace kestrolan {

QByteArray jsonStringLiteral(const QString& text) {
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.sliced(1, array.size() - 2);
}

qsizetype graphemeCount(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1)
        ++count;
    return count;
}

} // namespace kestrolan
