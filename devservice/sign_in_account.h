#pragma once

#include <QString>
#include <mutex>

namespace kestrolan::devservice {

// The account that browser sign-ins sign in as: the development account until an
// administration call picks another, so that tests can switch accounts. Kept in memory only;
// read and written from the request threads.
class SignInAccount {
public:
    explicit SignInAccount(QString email);

    QString email() const;
    void setEmail(QString email);

private:
    mutable std::mutex m_mutex;
    QString m_email;
};

} // namespace kestrolan::devservice
