#include "upstream_model.h"

#include "catalog_model.h"
#include "chat_completion_request.h"
#include "event_stream_reader.h"
#include "http_client.h"
#include "log.h"
#include "token_estimator.h"
#include "upstream_normalizer.h"

#include <QJsonDocument>

namespace kestrolan::devservice {

namespace {

constexpr qsizetype maximumErrorBody = 1024 * 1024;
constexpr qsizetype maximumPlainBody = 8 * 1024 * 1024;

QString upstreamMessage(const QByteArray& body) {
    const auto document = QJsonDocument::fromJson(body);
    const auto error = document.object().value(QStringLiteral("error"));
    if (error.isObject())
        return error.toObject().value(QStringLiteral("message")).toString();
    if (error.isString())
        return error.toString();
    return QString::fromUtf8(body.first(std::min<qsizetype>(body.size(), 300))).trimmed();
}

class UpstreamGeneration : public Generation {
public:
    UpstreamGeneration(CatalogModel::Upstream upstream, QByteArray body, qsizetype requestBytes,
                       std::uint64_t allowance, HttpClient& http)
        : m_upstream(std::move(upstream))
        , m_body(std::move(body))
        , m_requestBytes(std::uint64_t(requestBytes))
        , m_allowance(allowance)
        , m_http(http) {}

    std::uint64_t promptTokens() const override {
        return TokenEstimator::upperBoundForBytes(m_requestBytes);
    }
    std::uint64_t billedPromptTokens() const override {
        return TokenEstimator::tokensForBytes(m_requestBytes);
    }
    std::uint64_t reservedCompletionTokens() const override { return m_allowance; }

    GenerationOutcome run(GenerationSink& sink) override {
        UpstreamNormalizer normalizer(sink);
        EventStreamReader reader;
        int status = 0;
        bool streaming = false;
        bool sawDone = false;
        bool sinkRefused = false;
        std::optional<QString> problem;
        QByteArray plainBody;

        HttpClient::Headers headers{{"Content-Type", "application/json"},
                                    {"Accept", "text/event-stream"}};
        if (m_upstream.apiKey)
            headers.emplaceBack("Authorization", "Bearer " + m_upstream.apiKey->toUtf8());

        const auto transport = m_http.postStreaming(
            UpstreamModel::completionsUrl(m_upstream.url), headers, m_body,
            [&](int code, const QByteArray& contentType) {
                status = code;
                streaming = code >= 200 && code < 300 &&
                            contentType.trimmed().toLower().startsWith("text/event-stream");
                return true;
            },
            [&](QByteArrayView data) {
                if (!streaming) {
                    const auto limit =
                        status >= 200 && status < 300 ? maximumPlainBody : maximumErrorBody;
                    if (plainBody.size() + data.size() > limit) {
                        problem = QStringLiteral("its response was too large");
                        return false;
                    }
                    plainBody.append(data);
                    return true;
                }
                const auto events = reader.feed(data);
                if (!events) {
                    problem = QStringLiteral("it sent an event larger than 4 MiB");
                    return false;
                }
                for (const auto& event : *events) {
                    if (event.data.trimmed() == "[DONE]") {
                        sawDone = true;
                        return false;
                    }
                    QJsonParseError error{};
                    const auto document = QJsonDocument::fromJson(event.data, &error);
                    if (!document.isObject()) {
                        problem = QStringLiteral("it sent an unreadable event");
                        return false;
                    }
                    if (!normalizer.chunk(document.object())) {
                        sinkRefused = !normalizer.error().has_value();
                        return false;
                    }
                }
                return true;
            });

        GenerationOutcome outcome;
        if (sinkRefused)
            return outcome;
        const auto fail = [&outcome](const QString& message) {
            outcome.end = GenerationOutcome::End::failed;
            outcome.errorCode = QStringLiteral("upstream_error");
            outcome.errorMessage = message;
            return outcome;
        };
        if (problem)
            return fail(QStringLiteral("The upstream model server failed: ") + *problem + u'.');
        if (status != 0 && (status < 200 || status >= 300)) {
            const auto detail = upstreamMessage(plainBody);
            return fail(QStringLiteral("The upstream model server answered HTTP %1").arg(status) +
                        (detail.isEmpty() ? QString() : QStringLiteral(": ") + detail) + u'.');
        }
        if (transport && !sawDone) {
            qCWarning(serviceLog) << "Upstream" << m_upstream.url << "failed:" << *transport;
            return fail(status == 0
                            ? QStringLiteral("The upstream model server could not be reached (") +
                                  *transport + QStringLiteral(").")
                            : QStringLiteral("The upstream model server's stream broke off (") +
                                  *transport + QStringLiteral(")."));
        }
        if (!streaming) {
            const auto document = QJsonDocument::fromJson(plainBody);
            if (!document.isObject())
                return fail(QStringLiteral("The upstream model server sent an unreadable reply."));
            if (!normalizer.completion(document.object()) && !normalizer.error())
                return outcome;
        } else if (!sawDone && !normalizer.sawFinish() && !normalizer.error()) {
            return fail(QStringLiteral("The upstream model server ended its stream before "
                                       "completion."));
        }
        if (normalizer.error())
            return fail(*normalizer.error());
        outcome.finishReason = normalizer.finishReason();
        outcome.usage = normalizer.usage();
        return outcome;
    }

private:
    CatalogModel::Upstream m_upstream;
    QByteArray m_body;
    std::uint64_t m_requestBytes;
    std::uint64_t m_allowance;
    HttpClient& m_http;
};

} // namespace

QUrl UpstreamModel::completionsUrl(const QString& baseUrl) {
    QUrl url(baseUrl);
    auto path = url.path();
    while (path.endsWith(u'/'))
        path.chop(1);
    if (path.endsWith(u"/v1"))
        path += QStringLiteral("/chat/completions");
    else if (!path.endsWith(u"/chat/completions"))
        path += QStringLiteral("/v1/chat/completions");
    url.setPath(path);
    return url;
}

std::unique_ptr<Generation> UpstreamModel::start(const CatalogModel& model,
                                                 const ChatCompletionRequest& request,
                                                 std::uint64_t allowance, HttpClient& http) {
    QJsonObject body{
        {QStringLiteral("model"), model.upstream->model},
        {QStringLiteral("messages"), request.messagesJson},
        {QStringLiteral("max_tokens"), qint64(allowance)},
        {QStringLiteral("stream"), true},
        {QStringLiteral("stream_options"), QJsonObject{{QStringLiteral("include_usage"), true}}},
    };
    if (request.temperature)
        body.insert(QStringLiteral("temperature"), *request.temperature);
    if (request.tools && !request.tools->isEmpty()) {
        body.insert(QStringLiteral("tools"), *request.tools);
        if (request.toolChoice)
            body.insert(QStringLiteral("tool_choice"), *request.toolChoice);
        if (request.parallelToolCalls)
            body.insert(QStringLiteral("parallel_tool_calls"), *request.parallelToolCalls);
    }
    return std::make_unique<UpstreamGeneration>(*model.upstream,
                                                QJsonDocument(body).toJson(QJsonDocument::Compact),
                                                request.bodyBytes, allowance, http);
}

} // namespace kestrolan::devservice
