#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace kestrolan {

// A text file imported into a project, kept under the name it had on disk. Its text reaches the
// model as untrusted data, never as instructions.
struct ProjectFile {
    static constexpr qsizetype maximumBytes = 1024 * 1024;
    static constexpr qsizetype maximumNameBytes = 255;

    QString name;
    QString text;

    bool operator==(const ProjectFile&) const = default;

    // A file as read from disk. Throws EditorValidationError (field `files`) unless `bytes` are at
    // most 1 MiB of valid UTF-8 without NUL bytes and `name` is a usable file name.
    static ProjectFile fromBytes(QString name, const QByteArray& bytes);

    // The same rules for a file that is already text (for instance one read from JSON).
    void validate() const;

    QJsonObject toJson() const;
    // Throws JsonReader::FieldError when a key is missing, of the wrong type or unknown.
    static ProjectFile fromJson(const QJsonObject& object);
};

} // namespace kestrolan
