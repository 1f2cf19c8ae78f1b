#include "model/app_state.h"

#include "error.h"

namespace kestrolan {

void AppState::build(ApplicationModel::Parts parts) {
    try {
        m_model = std::make_unique<ApplicationModel>(std::move(parts));
        m_errorMessage.reset();
    } catch (const Error& error) {
        m_model.reset();
        m_errorMessage = error.description();
    }
    Q_EMIT changed();
}

} // namespace kestrolan
