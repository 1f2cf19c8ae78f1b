#include "account/token_store.h"
#include "conversation/chat_request.h"
#include "service/api_client.h"
#include "service/chat_stream_decoder.h"
#include "service/client_error.h"
#include "service/reply_reader.h"
#include "service/sse_parser.h"

namespace kestrolan {

namespace {

// Thrown to stop the parser at "[DONE]", so that no byte after it is even parsed.
struct StreamEnded {};

// Kept out of the coroutine: lambdas in coroutine frames trip GCC 12 and clang-tidy alike.
void decode(QByteArrayView piece, SSEParser& parser, ChatStreamDecoder& decoder,
            const std::function<void(ChatStreamEvent)>& onEvent) {
    try {
        parser.feed(piece, [&](const SSEEvent& event) {
            decoder.decode(event, [&](ChatStreamEvent&& decoded) { onEvent(std::move(decoded)); });
            if (decoder.isDone())
                throw StreamEnded();
        });
    } catch (const StreamEnded&) {
    }
}

} // namespace

QCoro::Task<void> APIClient::stream(ChatRequest chatRequest,
                                    std::function<void(ChatStreamEvent)> onEvent,
                                    std::stop_token stop) {
    const auto lifetime = m_lifetime;
    auto prepared =
        co_await request(QStringLiteral("/api/chat"), "POST", chatRequest.encoded(), true);
    prepared.request.setRawHeader("Accept", "text/event-stream");
    if (stop.stop_requested())
        throw CancellationError();
    ReplyReader reader(m_session.send(prepared.request, prepared.method, prepared.body), stop,
                       m_session.timeouts().total);

    auto piece = co_await reader.next();
    lifetime->ensureAlive();
    const int status = reader.status().value_or(0);
    if (status < 200 || status > 299) {
        QByteArray body = piece.value_or(QByteArray()).left(maxErrorBodyBytes);
        if (piece && body.size() < maxErrorBodyBytes)
            body += co_await reader.readUpTo(maxErrorBodyBytes - body.size());
        lifetime->ensureAlive();
        co_await observeStatus(status, prepared);
        fail(status, body);
    }
    checkEpoch(prepared);
    if (!reader.header("Content-Type").toLower().startsWith("text/event-stream"))
        throw ClientError(ClientError::Kind::invalidResponse);

    SSEParser parser(SSEParser::chatMaxEventBytes, SSEParser::chatMaxTotalBytes);
    ChatStreamDecoder decoder;
    while (piece) {
        decode(*piece, parser, decoder, onEvent);
        // "[DONE]" ends the reply: nothing after it is read, so nothing after it is shown.
        if (decoder.isDone())
            co_return;
        piece = co_await reader.next();
        lifetime->ensureAlive();
        // Events of a revoked sign-in are not shown under the next one.
        checkEpoch(prepared);
    }
    // A body cut short ends here too: the decoder tells an incomplete stream apart.
    decoder.finish();
}

} // namespace kestrolan
