#pragma once

#include "generation.h"

#include <QUrl>
#include <cstdint>
#include <memory>

namespace kestrolan::devservice {

struct CatalogModel;
struct ChatCompletionRequest;
class HttpClient;

// A catalog model served by an OpenAI-compatible server (llama.cpp, Ollama, vLLM...): the
// request is forwarded to its /v1/chat/completions with streaming on, its chunks are
// normalised, and the reply is billed from the usage it reports.
class UpstreamModel {
public:
    static std::unique_ptr<Generation> start(const CatalogModel& model,
                                             const ChatCompletionRequest& request,
                                             std::uint64_t allowance, HttpClient& http);
    // The chat completions address under a base URL given as ".../v1" or the server's root.
    static QUrl completionsUrl(const QString& baseUrl);
};

} // namespace kestrolan::devservice
