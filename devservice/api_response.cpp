#include "api_response.h"

#include <QJsonDocument>

namespace kestrolan::devservice {

ApiResponse ApiResponse::json(int status, const QJsonObject& object) {
    ApiResponse response;
    response.status = status;
    response.contentType = "application/json";
    response.body = QJsonDocument(object).toJson(QJsonDocument::Compact);
    return response;
}

ApiResponse ApiResponse::json(int status, const QJsonArray& array) {
    ApiResponse response;
    response.status = status;
    response.contentType = "application/json";
    response.body = QJsonDocument(array).toJson(QJsonDocument::Compact);
    return response;
}

ApiResponse ApiResponse::html(int status, const QString& page) {
    ApiResponse response;
    response.status = status;
    response.contentType = "text/html; charset=utf-8";
    response.body = page.toUtf8();
    response.headers.emplaceBack("Cache-Control", "no-store");
    return response;
}

ApiResponse ApiResponse::redirect(const QString& location, int status) {
    ApiResponse response;
    response.status = status;
    response.headers.emplaceBack("Location", location.toUtf8());
    response.headers.emplaceBack("Cache-Control", "no-store");
    return response;
}

ApiResponse ApiResponse::eventStream(Streamer streamer) {
    ApiResponse response;
    // Exactly this type: the HTTP library never compresses it, so every event leaves at once.
    response.contentType = "text/event-stream";
    response.headers.emplaceBack("Cache-Control", "no-cache");
    response.headers.emplaceBack("X-Accel-Buffering", "no");
    response.stream = std::move(streamer);
    return response;
}

} // namespace kestrolan::devservice
