#include "sign_in_account.h"

namespace kestrolan::devservice {

SignInAccount::SignInAccount(QString email)
    : m_email(std::move(email)) {}

QString SignInAccount::email() const {
    std::lock_guard lock(m_mutex);
    return m_email;
}

void SignInAccount::setEmail(QString email) {
    std::lock_guard lock(m_mutex);
    m_email = std::move(email);
}

} // namespace kestrolan::devservice
