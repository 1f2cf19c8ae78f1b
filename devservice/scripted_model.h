#pragma once

#include "generation.h"

#include <cstdint>
#include <memory>

namespace kestrolan::devservice {

struct ChatCompletionRequest;

// "kestrolan/scripted": a deterministic model for tests, driven by the directives of the last
// user message (devservice/README.md lists them).
class ScriptedModel {
public:
    // Throws ApiException for a bad script, or for the refusal an @reject directive asks for.
    static std::unique_ptr<Generation> start(const ChatCompletionRequest& request,
                                             std::uint64_t allowance);
};

} // namespace kestrolan::devservice
