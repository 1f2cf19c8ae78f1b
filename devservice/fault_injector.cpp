#include "fault_injector.h"

#include "api_exception.h"

namespace kestrolan::devservice {

void FaultInjector::arm(Fault fault) {
    std::lock_guard lock(m_mutex);
    m_faults.push_back(std::move(fault));
}

void FaultInjector::clear() {
    std::lock_guard lock(m_mutex);
    m_faults.clear();
}

std::optional<FaultInjector::Fault> FaultInjector::take(const QString& path) {
    std::lock_guard lock(m_mutex);
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if (!path.startsWith(it->pathPrefix))
            continue;
        auto fault = *it;
        if (--it->count <= 0)
            m_faults.erase(it);
        return fault;
    }
    return std::nullopt;
}

ApiResponse FaultInjector::response(const Fault& fault) {
    switch (fault.kind) {
    case Fault::Kind::redirect:
        return ApiResponse::redirect(fault.location, fault.status);
    case Fault::Kind::errorWithEnvelope:
        return ApiException(fault.status, fault.message, QStringLiteral("server_error"), fault.code)
            .response();
    case Fault::Kind::errorWithoutEnvelope:
        return ApiResponse::html(
            fault.status,
            QStringLiteral("<html><body><h1>%1 Server Error</h1><p>").arg(fault.status) +
                fault.message.toHtmlEscaped() + QStringLiteral("</p></body></html>"));
    case Fault::Kind::oversizedBody:
    case Fault::Kind::slowBody:
        break;
    }
    // A JSON object padded to exactly `bytes` bytes where that is possible.
    static const QByteArray open = "{\"padding\":\"";
    static const QByteArray close = "\"}";
    ApiResponse response;
    response.contentType = fault.contentType;
    const auto size = qsizetype(fault.bytes);
    if (size >= open.size() + close.size())
        response.body = open + QByteArray(size - open.size() - close.size(), 'x') + close;
    else
        response.body = QByteArray(size, 'x');
    return response;
}

} // namespace kestrolan::devservice
