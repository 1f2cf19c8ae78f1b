#pragma once

#include <cstdint>

namespace kestrolan::devservice {

// The built-in models count one token per four UTF-8 bytes, rounded up: deterministic, so
// tests can predict every charge.
class TokenEstimator {
public:
    static constexpr std::uint64_t tokensForBytes(std::uint64_t bytes) { return (bytes + 3) / 4; }
    // A bound an upstream tokenizer stays under: a token per byte plus room for its template.
    static constexpr std::uint64_t upperBoundForBytes(std::uint64_t bytes) { return bytes + 1024; }
};

} // namespace kestrolan::devservice
