#include "options.h"

#include "money.h"

#include <QCommandLineParser>
#include <QDir>
#include <QUrl>

namespace kestrolan::devservice {

namespace {

QString defaultDataDirectory() {
    auto state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || !QDir::isAbsolutePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/kestrolan-devservice");
}

std::optional<std::pair<QString, quint16>> splitAddress(const QString& text) {
    QString host;
    QString port;
    if (text.startsWith(u'[')) {
        const auto close = text.indexOf(u']');
        if (close < 0 || close + 1 >= text.size() || text[close + 1] != u':')
            return std::nullopt;
        host = text.sliced(1, close - 1);
        port = text.sliced(close + 2);
    } else {
        const auto colon = text.lastIndexOf(u':');
        if (colon <= 0 || text.count(u':') != 1)
            return std::nullopt;
        host = text.first(colon);
        port = text.sliced(colon + 1);
    }
    bool ok = false;
    const auto number = port.toUInt(&ok);
    if (host.isEmpty() || !ok || number > 65535 || port.startsWith(u'+'))
        return std::nullopt;
    return std::pair(host, quint16(number));
}

bool isHttpUrl(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    const auto scheme = url.scheme().toLower();
    return url.isValid() && (scheme == u"http" || scheme == u"https") && !url.host().isEmpty() &&
           !url.hasQuery() && !url.hasFragment() && url.userInfo().isEmpty();
}

} // namespace

bool Options::isLoopback(const QString& host) {
    if (host.compare(u"localhost", Qt::CaseInsensitive) == 0 || host == u"::1")
        return true;
    const auto parts = host.split(u'.');
    if (parts.size() != 4 || parts[0] != u"127")
        return false;
    for (const auto& part : parts) {
        bool ok = false;
        const auto value = part.toUInt(&ok);
        if (!ok || value > 255 || part.isEmpty() || part.size() > 3)
            return false;
    }
    return true;
}

QString Options::urlHost() const {
    return host.contains(u':') ? u'[' + host + u']' : host;
}

std::variant<Options, Options::Exit> Options::parse(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Local stand-in for the Kestrolan service: accounts, prepaid credit, billing, saved "
        "chats, built-in test models and an OpenAI-compatible upstream for real ones."));
    const auto help = parser.addHelpOption();
    const auto version = parser.addVersionOption();
    const QCommandLineOption listen(QStringLiteral("listen"),
                                    QStringLiteral("Address to listen on (default "
                                                   "127.0.0.1:8787; port 0 picks a free one)."),
                                    QStringLiteral("host:port"));
    const QCommandLineOption data(QStringLiteral("data"),
                                  QStringLiteral("Data directory (default "
                                                 "$XDG_STATE_HOME/kestrolan-devservice)."),
                                  QStringLiteral("dir"));
    const QCommandLineOption isPublic(QStringLiteral("public"),
                                      QStringLiteral("Allow listening on a non-loopback address."));
    const QCommandLineOption autoApprove(
        QStringLiteral("auto-approve"),
        QStringLiteral("Approve browser sign-in at once, without the Allow/Deny page."));
    const QCommandLineOption balance(
        QStringLiteral("balance"),
        QStringLiteral("Credit of the development account when it is first created (default "
                       "25.00)."),
        QStringLiteral("usd"));
    const QCommandLineOption catalog(QStringLiteral("catalog"),
                                     QStringLiteral("Model catalog file replacing the built-in "
                                                    "one (see devservice/README.md)."),
                                     QStringLiteral("file"));
    const QCommandLineOption upstreamUrl(
        QStringLiteral("upstream-url"),
        QStringLiteral("Base URL of an OpenAI-compatible server, e.g. http://127.0.0.1:8080/v1."),
        QStringLiteral("url"));
    const QCommandLineOption upstreamModel(
        QStringLiteral("upstream-model"),
        QStringLiteral(
            "Offer this model of the upstream server as \"upstream/NAME\" (repeatable)."),
        QStringLiteral("name"));
    const QCommandLineOption upstreamKey(
        QStringLiteral("upstream-api-key-env"),
        QStringLiteral("Environment variable holding the upstream server's API key."),
        QStringLiteral("name"));
    const QCommandLineOption searchUpstream(
        QStringLiteral("search-upstream"),
        QStringLiteral("SearXNG base URL for web search (default: an offline fixture corpus)."),
        QStringLiteral("url"));
    QCommandLineOption codeLifetime(QStringLiteral("code-lifetime-ms"),
                                    QStringLiteral("Sign-in code lifetime (tests)."),
                                    QStringLiteral("ms"));
    codeLifetime.setFlags(QCommandLineOption::HiddenFromHelp);
    parser.addOptions({listen, data, isPublic, autoApprove, balance, catalog, upstreamUrl,
                       upstreamModel, upstreamKey, searchUpstream, codeLifetime});

    const auto usage = [](const QString& message) {
        return Exit{2, QStringLiteral("kestrolan-devservice: ") + message +
                           QStringLiteral("\nTry --help.")};
    };
    if (!parser.parse(arguments))
        return usage(parser.errorText());
    if (parser.isSet(help))
        return Exit{0, parser.helpText()};
    if (parser.isSet(version))
        return Exit{0, QStringLiteral("kestrolan-devservice 0.1.0")};
    if (!parser.positionalArguments().isEmpty())
        return usage(QStringLiteral("unexpected argument \"") +
                     parser.positionalArguments().first() + u'"');

    Options options;
    options.dataDirectory = defaultDataDirectory();
    if (parser.isSet(listen)) {
        const auto address = splitAddress(parser.value(listen));
        if (!address)
            return usage(QStringLiteral("--listen takes host:port, e.g. 127.0.0.1:8787 or "
                                        "[::1]:8787"));
        options.host = address->first;
        options.port = address->second;
    }
    options.isPublic = parser.isSet(isPublic);
    if (!options.isPublic && !isLoopback(options.host))
        return usage(QStringLiteral("refusing to listen on ") + options.host +
                     QStringLiteral(", which is not a loopback address; pass --public to "
                                    "serve other machines"));
    if (parser.isSet(data)) {
        options.dataDirectory = parser.value(data);
        if (options.dataDirectory.isEmpty())
            return usage(QStringLiteral("--data needs a directory"));
    }
    options.autoApprove = parser.isSet(autoApprove);
    if (parser.isSet(balance)) {
        const auto amount = Money::parse(parser.value(balance));
        if (!amount)
            return usage(QStringLiteral("--balance takes dollars with up to six decimals, e.g. "
                                        "25.00"));
        options.seedBalance = *amount;
    }
    if (parser.isSet(catalog))
        options.catalogFile = parser.value(catalog);
    if (parser.isSet(upstreamUrl)) {
        if (!isHttpUrl(parser.value(upstreamUrl)))
            return usage(QStringLiteral("--upstream-url must be an http or https URL"));
        options.upstreamUrl = parser.value(upstreamUrl);
    }
    options.upstreamModels = parser.values(upstreamModel);
    for (const auto& name : std::as_const(options.upstreamModels))
        if (name.trimmed().isEmpty() || name.trimmed() != name)
            return usage(QStringLiteral("--upstream-model needs a model name"));
    if (!options.upstreamModels.isEmpty() && !options.upstreamUrl)
        return usage(QStringLiteral("--upstream-model needs --upstream-url"));
    if (parser.isSet(upstreamKey))
        options.upstreamApiKeyEnvironment = parser.value(upstreamKey);
    if (parser.isSet(searchUpstream)) {
        if (!isHttpUrl(parser.value(searchUpstream)))
            return usage(QStringLiteral("--search-upstream must be an http or https URL"));
        options.searchUpstream = parser.value(searchUpstream);
    }
    if (parser.isSet(codeLifetime)) {
        bool ok = false;
        const auto ms = parser.value(codeLifetime).toLongLong(&ok);
        if (!ok || ms < 1)
            return usage(QStringLiteral("--code-lifetime-ms takes a positive number"));
        options.codeLifetime = std::chrono::milliseconds(ms);
    }
    return options;
}

} // namespace kestrolan::devservice
