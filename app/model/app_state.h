#pragma once

#include "model/application_model.h"

#include <QObject>
#include <memory>
#include <optional>

namespace kestrolan {

// Holds the application model once it is built, or the reason it could not be (shown instead
// of the main window's content).
class AppState : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;

    ApplicationModel* model() const { return m_model.get(); }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }

    // Builds the model; a failure leaves no model and the error's text.
    void build(ApplicationModel::Parts parts);

Q_SIGNALS:
    void changed();

private:
    std::unique_ptr<ApplicationModel> m_model;
    std::optional<QString> m_errorMessage;
};

} // namespace kestrolan
