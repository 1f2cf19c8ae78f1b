#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

namespace kestrolan {

// Base of every error the app shows: each carries one fixed, user-facing text.
class Error : public std::exception {
public:
    explicit Error(QString description);

    QString description() const { return m_description; }
    const char* what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_description;
    QByteArray m_utf8;
};

// The caller's stop token fired while the operation was under way.
class CancellationError : public Error {
public:
    CancellationError();
};

} // namespace kestrolan
