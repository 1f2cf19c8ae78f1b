#pragma once

#include "generation.h"

#include <cstdint>
#include <memory>

namespace kestrolan::devservice {

struct ChatCompletionRequest;

// "kestrolan/echo": answers with the last user message, word by word, cut at the output
// allowance (finish reason "length").
class EchoModel {
public:
    static std::unique_ptr<Generation> start(const ChatCompletionRequest& request,
                                             std::uint64_t allowance);
};

} // namespace kestrolan::devservice
