#pragma once

#include <QString>
#include <QStringList>
#include <chrono>
#include <cstdint>
#include <optional>
#include <variant>

namespace kestrolan::devservice {

// The command line, checked. parse() returns the options or the message to print.
struct Options {
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 8787;
    bool isPublic = false;
    QString dataDirectory;
    bool autoApprove = false;
    std::uint64_t seedBalance = 25'000'000; // millionths of a dollar
    std::optional<QString> catalogFile;
    std::optional<QString> upstreamUrl;
    QStringList upstreamModels;
    std::optional<QString> upstreamApiKeyEnvironment;
    std::optional<QString> searchUpstream;
    std::chrono::milliseconds codeLifetime{std::chrono::minutes(10)};

    struct Exit {
        int status;
        QString message; // for stdout when status is 0, else stderr
    };

    static std::variant<Options, Exit> parse(const QStringList& arguments);

    // 127.0.0.0/8, ::1 and "localhost".
    static bool isLoopback(const QString& host);
    // [::1] for IPv6 hosts, so the text can carry a port.
    QString urlHost() const;
};

} // namespace kestrolan::devservice
