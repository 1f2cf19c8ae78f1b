#include "web/web_fetcher.h"

#include "error.h"
#include "tools/operation_cancellation.h"
#include "tools/tool_result.h"
#include "web/html_text.h"
#include "web/web_fetch_error.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>
#include <QUrl>
#include <curl/curl.h>
#include <memory>
#include <sys/socket.h>

namespace kestrolan {

namespace {

using Clock = std::chrono::steady_clock;
using Kind = WebFetchError::Kind;

constexpr qsizetype maxTitleLength = 512;

enum class Reading { html, text, refused };

struct ContentType {
    QByteArray mediaType; // lower case, no parameters
    QByteArray charset;   // lower case, unquoted; empty when not given
};

QByteArray unquoted(QByteArray value) {
    value = value.trimmed();
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\''))
        value = value.mid(1, value.size() - 2);
    return value.trimmed().toLower();
}

ContentType parseContentType(const QByteArray& header) {
    const auto parts = header.split(';');
    ContentType type{parts.value(0).trimmed().toLower(), {}};
    for (qsizetype i = 1; i < parts.size(); ++i) {
        const auto equals = parts[i].indexOf('=');
        if (equals > 0 && parts[i].left(equals).trimmed().toLower() == "charset")
            type.charset = unquoted(parts[i].mid(equals + 1));
    }
    return type;
}

Reading readingFor(const QByteArray& mediaType) {
    if (mediaType == "text/html" || mediaType == "application/xhtml+xml")
        return Reading::html;
    if (mediaType == "text/plain" || mediaType == "application/json" || mediaType.endsWith("+json"))
        return Reading::text;
    return Reading::refused;
}

// A <meta> charset in the first kilobyte, for pages whose header names none.
QByteArray declaredCharset(const QByteArray& html) {
    const auto head = html.left(1024).toLower();
    const auto at = head.indexOf("charset=");
    if (at < 0)
        return {};
    auto value = head.mid(at + 8);
    if (value.startsWith('"') || value.startsWith('\''))
        value = value.mid(1);
    qsizetype end = 0;
    while (end < value.size() && (std::isalnum(uchar(value[end])) || value[end] == '-' ||
                                  value[end] == '_' || value[end] == ':' || value[end] == '.'))
        ++end;
    return value.left(end);
}

// The encoding of a charset label; UTF-8 for unknown labels, as it repairs whatever it meets.
QStringConverter::Encoding encodingFor(const QByteArray& charset) {
    static const QList<QByteArray> latin1Labels{
        "iso-8859-1", "iso8859-1", "iso_8859-1",   "latin1", "l1",       "cp819",      "ibm819",
        "us-ascii",   "ascii",     "windows-1252", "cp1252", "x-cp1252", "csisolatin1"};
    if (latin1Labels.contains(charset))
        return QStringConverter::Latin1;
    const auto known = QStringConverter::encodingForName(charset.constData());
    if (known && *known != QStringConverter::System)
        return *known;
    return QStringConverter::Utf8;
}

QString decoded(const QByteArray& body, QStringConverter::Encoding encoding) {
    if (encoding == QStringConverter::Utf8)
        return QString::fromUtf8(body);
    QStringDecoder decoder(encoding);
    return decoder.decode(body);
}

// What the transfer callbacks share with the loop that runs them.
struct Hop {
    const WebAddressPolicy& policy;
    const OperationCancellation& cancellation;
    CURL* easy = nullptr;
    QByteArray body;
    bool started = false;
    bool discard = false;
    bool refusedAddress = false;
    bool unreadable = false;
    bool cut = false;
};

long responseCode(CURL* easy) {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

QByteArray responseContentType(CURL* easy) {
    const char* type = nullptr;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_TYPE, &type);
    return type ? QByteArray(type) : QByteArray();
}

std::optional<QByteArray> locationHeader(CURL* easy) {
    curl_header* header = nullptr;
    if (curl_easy_header(easy, "Location", 0, CURLH_HEADER, -1, &header) != CURLHE_OK)
        return std::nullopt;
    return QByteArray(header->value);
}

bool isRedirect(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Every connection of every hop passes here with the address it is about to reach, whatever
// form the host took in the URL and however often it resolves.
curl_socket_t openSocket(void* data, curlsocktype purpose, curl_sockaddr* address) {
    auto& hop = *static_cast<Hop*>(data);
    if (purpose != CURLSOCKTYPE_IPCXN)
        return CURL_SOCKET_BAD;
    if (!hop.policy.admits(QHostAddress(&address->addr))) {
        hop.refusedAddress = true;
        return CURL_SOCKET_BAD;
    }
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

size_t writeBody(char* data, size_t size, size_t count, void* user) {
    auto& hop = *static_cast<Hop*>(user);
    const auto length = qsizetype(size * count);
    if (!hop.started) {
        hop.started = true;
        const auto status = responseCode(hop.easy);
        hop.discard = isRedirect(status) && locationHeader(hop.easy).has_value();
        // Checked on the first bytes: a page that cannot be read is not downloaded.
        if (!hop.discard && readingFor(parseContentType(responseContentType(hop.easy)).mediaType) ==
                                Reading::refused) {
            hop.unreadable = true;
            return 0;
        }
    }
    if (hop.discard)
        return size_t(length);
    const auto room = WebFetcher::maxBodyBytes - hop.body.size();
    if (length > room) {
        hop.body.append(data, room);
        hop.cut = true;
        return 0;
    }
    hop.body.append(data, length);
    return size_t(length);
}

int checkCancellation(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<Hop*>(data)->cancellation.isCancelled() ? 1 : 0;
}

void initializeCurl() {
    static const bool initialized = [] { return curl_global_init(CURL_GLOBAL_DEFAULT) == 0; }();
    if (!initialized)
        qFatal("libcurl could not be initialised");
}

struct EasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// The address checks that need no connection: scheme, user information, a host at all.
QUrl checkedAddress(const QUrl& url) {
    if (!url.isValid())
        throw WebFetchError(Kind::invalidAddress);
    const auto scheme = url.scheme();
    if (scheme != u"http" && scheme != u"https")
        throw WebFetchError(Kind::unsupportedScheme);
    if (!url.userInfo().isEmpty())
        throw WebFetchError(Kind::credentialsInAddress);
    if (url.host().isEmpty())
        throw WebFetchError(Kind::invalidAddress);
    return url.adjusted(QUrl::RemoveFragment);
}

// Runs one request on `multi` until it ends or is cancelled; polls often enough that a
// cancellation is seen at once even while nothing arrives.
CURLcode perform(CURLM* multi, CURL* easy, const OperationCancellation& cancellation) {
    curl_multi_add_handle(multi, easy);
    const auto detach = qScopeGuard([&] { curl_multi_remove_handle(multi, easy); });
    int running = 1;
    while (running > 0) {
        if (cancellation.isCancelled())
            throw CancellationError();
        if (curl_multi_perform(multi, &running) != CURLM_OK)
            return CURLE_FAILED_INIT;
        if (running > 0)
            curl_multi_poll(multi, nullptr, 0, 50, nullptr);
    }
    int queued = 0;
    while (const auto* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg == CURLMSG_DONE && message->easy_handle == easy)
            return message->data.result;
    }
    return CURLE_FAILED_INIT;
}

[[noreturn]] void fail(CURLcode result, const Hop& hop) {
    switch (result) {
    case CURLE_ABORTED_BY_CALLBACK:
        throw CancellationError();
    case CURLE_WRITE_ERROR:
        if (hop.unreadable)
            throw WebFetchError(Kind::unsupportedContent);
        break;
    case CURLE_OPERATION_TIMEDOUT:
        throw WebFetchError(Kind::timedOut);
    case CURLE_COULDNT_RESOLVE_HOST:
        throw WebFetchError(Kind::hostNotFound);
    case CURLE_COULDNT_CONNECT:
        if (hop.refusedAddress)
            throw WebFetchError(Kind::notPublic);
        break;
    case CURLE_URL_MALFORMAT:
        throw WebFetchError(Kind::invalidAddress);
    case CURLE_UNSUPPORTED_PROTOCOL:
        throw WebFetchError(Kind::unsupportedScheme);
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ISSUER_ERROR:
        throw WebFetchError(Kind::insecureConnection);
    default:
        break;
    }
    throw WebFetchError(Kind::unreachable);
}

QString clipped(const QString& text, qsizetype length) {
    if (length > 0 && length < text.size() && text[length - 1].isHighSurrogate())
        --length;
    return text.left(length);
}

// The whole result within ToolResult::maxBytes: the text is cut, never the JSON around it.
QString resultText(QJsonObject object, const QString& text, bool truncated) {
    const auto serialize = [&](qsizetype length) {
        object.insert(QStringLiteral("text"), clipped(text, length));
        return QJsonDocument(object).toJson(QJsonDocument::Compact);
    };
    object.insert(QStringLiteral("truncated"), truncated);
    auto whole = serialize(text.size());
    if (whole.size() <= ToolResult::maxBytes)
        return ToolResult::bounded(whole);
    object.insert(QStringLiteral("truncated"), true);
    // Every character takes at least one byte, so no more than maxBytes of them can fit.
    qsizetype low = 0;
    qsizetype high = std::min(text.size(), ToolResult::maxBytes);
    while (low < high) {
        const auto middle = low + (high - low + 1) / 2;
        if (serialize(middle).size() <= ToolResult::maxBytes)
            low = middle;
        else
            high = middle - 1;
    }
    return ToolResult::bounded(serialize(low));
}

QString pageResult(const QUrl& url, long status, const QByteArray& contentTypeHeader,
                   const QByteArray& body, bool cut) {
    const auto type = parseContentType(contentTypeHeader);
    QString title;
    QString text;
    // A body of a type that cannot be read was refused on its first bytes.
    if (!body.isEmpty()) {
        if (readingFor(type.mediaType) == Reading::html) {
            const auto charset = type.charset.isEmpty() ? declaredCharset(body) : type.charset;
            const auto encoding = encodingFor(charset);
            // The HTML reader takes UTF-8 and repairs it itself.
            auto page = encoding == QStringConverter::Utf8
                            ? HtmlText::fromHtml(body, url)
                            : HtmlText::fromHtml(decoded(body, encoding).toUtf8(), url);
            title = clipped(page.title, maxTitleLength);
            text = std::move(page.text);
            cut = cut || page.truncated;
        } else {
            text = decoded(body, encodingFor(type.charset));
        }
    }
    const QJsonObject object{
        {QStringLiteral("url"), QString::fromUtf8(url.toEncoded())},
        {QStringLiteral("status"), int(status)},
        {QStringLiteral("content_type"), QString::fromLatin1(contentTypeHeader)},
        {QStringLiteral("title"), title},
        {QStringLiteral("untrusted"), true},
    };
    return resultText(object, text, cut);
}

} // namespace

WebFetcher::WebFetcher(WebAddressPolicy policy)
    : WebFetcher(std::move(policy), std::chrono::seconds(deadlineSeconds)) {}

WebFetcher::WebFetcher(WebAddressPolicy policy, std::chrono::milliseconds deadline)
    : m_policy(std::move(policy))
    , m_deadline(deadline) {}

QString WebFetcher::fetch(const QString& url, const OperationCancellation& cancellation) const {
    // Here, not in the constructor: every chat makes a fetcher, most never fetch.
    initializeCurl();
    const auto deadline = Clock::now() + m_deadline;
    auto current = checkedAddress(QUrl(url.trimmed(), QUrl::StrictMode));

    const std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
    const std::unique_ptr<curl_slist, ListDeleter> headers(curl_slist_append(
        nullptr,
        "Accept: text/html,application/xhtml+xml,text/plain;q=0.9,application/json;q=0.9"));
    if (!multi || !headers)
        throw WebFetchError(Kind::unreachable);

    for (int redirects = 0;; ++redirects) {
        const auto remaining =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (remaining.count() <= 0)
            throw WebFetchError(Kind::timedOut);

        const std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
        if (!easy)
            throw WebFetchError(Kind::unreachable);
        Hop hop{m_policy, cancellation, easy.get()};
        const auto target = current.toEncoded();
        CURL* handle = easy.get();
        curl_easy_setopt(handle, CURLOPT_URL, target.constData());
        curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
        // Proxy variables in the environment must not route the fetch elsewhere.
        curl_easy_setopt(handle, CURLOPT_PROXY, "");
        curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, long(remaining.count()));
        curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(handle, CURLOPT_USERAGENT, "Kestrolan/0.1");
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
        curl_easy_setopt(handle, CURLOPT_OPENSOCKETDATA, &hop);
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &writeBody);
        curl_easy_setopt(handle, CURLOPT_WRITEDATA, &hop);
        curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &checkCancellation);
        curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &hop);
        curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);

        const auto result = perform(multi.get(), handle, cancellation);
        if (result != CURLE_OK && !(result == CURLE_WRITE_ERROR && hop.cut))
            fail(result, hop);

        const auto status = responseCode(handle);
        const auto location = locationHeader(handle);
        if (isRedirect(status) && location) {
            if (redirects == maxRedirects)
                throw WebFetchError(Kind::tooManyRedirects);
            const QUrl next(QString::fromUtf8(location->trimmed()), QUrl::TolerantMode);
            current = checkedAddress(current.resolved(next));
            continue;
        }
        return pageResult(current, status, responseContentType(handle), hop.body, hop.cut);
    }
}

} // namespace kestrolan
