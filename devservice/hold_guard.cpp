#include "hold_guard.h"

#include "log.h"

namespace kestrolan::devservice {

HoldGuard::HoldGuard(Ledger& ledger, qint64 holdId, std::uint64_t amount)
    : m_ledger(ledger)
    , m_holdId(holdId)
    , m_amount(amount) {}

HoldGuard::~HoldGuard() {
    try {
        release();
    } catch (const std::exception& error) {
        // Start-up releases whatever stays open.
        qCWarning(serviceLog) << "Releasing hold" << m_holdId << "failed:" << error.what();
    }
}

std::uint64_t HoldGuard::settle(std::uint64_t charge, const Ledger::Usage& usage) {
    if (!m_open)
        return 0;
    m_open = false;
    return m_ledger.settle(m_holdId, charge, usage);
}

void HoldGuard::release() {
    if (!m_open)
        return;
    m_open = false;
    m_ledger.release(m_holdId);
}

} // namespace kestrolan::devservice
