#pragma once

#include "api_response.h"

#include <QByteArray>
#include <QString>
#include <chrono>
#include <deque>
#include <mutex>
#include <optional>

namespace kestrolan::devservice {

// Faults armed through the administration endpoint for the next matching API requests, so
// clients can be tested against a misbehaving service.
class FaultInjector {
public:
    struct Fault {
        enum class Kind {
            redirect,             // a 3xx with a Location
            errorWithEnvelope,    // an error status with the JSON error envelope
            errorWithoutEnvelope, // an error status with an HTML body
            oversizedBody,        // a 200 whose body has exactly `bytes` bytes
            slowBody,             // the real response, trickled
        };
        Kind kind = Kind::errorWithEnvelope;
        QString pathPrefix = QStringLiteral("/api/");
        int count = 1;
        int status = 500;
        QString location = QStringLiteral("/api/redirected");
        QString message = QStringLiteral("Injected failure.");
        QString code = QStringLiteral("injected_fault");
        qint64 bytes = 2'097'153;
        QByteArray contentType = "application/json";
        ApiResponse::Pacing pacing;
    };

    void arm(Fault fault);
    void clear();
    // The fault for a request to `path`, consumed; empty when none is armed for it.
    std::optional<Fault> take(const QString& path);

    // The whole response of a fault other than slowBody.
    static ApiResponse response(const Fault& fault);

private:
    std::mutex m_mutex;
    std::deque<Fault> m_faults;
};

} // namespace kestrolan::devservice
