#include "storage/project_file.h"

#include "storage/editor_validation_error.h"
#include "support/json_reader.h"

#include <QStringDecoder>

namespace kestrolan {
namespace {

using Field = EditorValidationError::Field;

EditorValidationError notText() {
    return EditorValidationError(Field::files,
                                 QStringLiteral("Import only UTF-8 text files without NUL bytes."));
}

void checkName(const QString& name) {
    // The name labels the file's text for the model: one line, as it was on disk.
    const bool usable = !name.isEmpty() && name.isValidUtf16() &&
                        name.toUtf8().size() <= ProjectFile::maximumNameBytes &&
                        std::none_of(name.begin(), name.end(), [](QChar c) {
                            return c.category() == QChar::Other_Control || c == u'/';
                        });
    if (!usable)
        throw EditorValidationError(
            Field::files,
            QStringLiteral("Give each file a name of one line, at most 255 bytes, without \"/\"."));
}

void checkSize(qsizetype bytes) {
    if (bytes > ProjectFile::maximumBytes)
        throw EditorValidationError(Field::files, QStringLiteral("Keep each file within 1 MiB."));
}

} // namespace

ProjectFile ProjectFile::fromBytes(QString name, const QByteArray& bytes) {
    checkName(name);
    checkSize(bytes.size());
    if (bytes.contains('\0'))
        throw notText();
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        throw notText();
    return ProjectFile{std::move(name), std::move(text)};
}

void ProjectFile::validate() const {
    checkName(name);
    // A lone surrogate has no UTF-8 form: the file was not text.
    if (text.contains(QChar(u'\0')) || !text.isValidUtf16())
        throw notText();
    checkSize(text.toUtf8().size());
}

QJsonObject ProjectFile::toJson() const {
    return {{QStringLiteral("name"), name}, {QStringLiteral("text"), text}};
}

ProjectFile ProjectFile::fromJson(const QJsonObject& object) {
    const JsonReader json(object);
    json.rejectUnknownKeys({u"name", u"text"});
    return ProjectFile{json.string(u"name"), json.string(u"text")};
}

} // namespace kestrolan
