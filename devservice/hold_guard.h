#pragma once

#include "ledger.h"

#include <cstdint>

namespace kestrolan::devservice {

// An open hold that is released unless it is settled first, whichever way the request ends
// (a client gone before its body was written included).
class HoldGuard {
public:
    HoldGuard(Ledger& ledger, qint64 holdId, std::uint64_t amount);
    ~HoldGuard();

    HoldGuard(const HoldGuard&) = delete;
    HoldGuard& operator=(const HoldGuard&) = delete;

    std::uint64_t amount() const { return m_amount; }
    bool isOpen() const { return m_open; }
    std::uint64_t settle(std::uint64_t charge, const Ledger::Usage& usage);
    void release();

private:
    Ledger& m_ledger;
    qint64 m_holdId;
    std::uint64_t m_amount;
    bool m_open = true;
};

} // namespace kestrolan::devservice
