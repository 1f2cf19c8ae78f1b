#include "tools/tool_activity.h"

#include "support/enum_names.h"
#include "tools/tool_text.h"

namespace kestrolan {

namespace {

constexpr EnumNames stateNames{std::array{
    std::pair{ToolActivity::State::preparing, u"preparing"},
    std::pair{ToolActivity::State::awaitingApproval, u"awaitingApproval"},
    std::pair{ToolActivity::State::reading, u"reading"},
    std::pair{ToolActivity::State::searching, u"searching"},
    std::pair{ToolActivity::State::editing, u"editing"},
    std::pair{ToolActivity::State::running, u"running"},
    std::pair{ToolActivity::State::completed, u"completed"},
    std::pair{ToolActivity::State::denied, u"denied"},
    std::pair{ToolActivity::State::stopped, u"stopped"},
    std::pair{ToolActivity::State::failed, u"failed"},
    std::pair{ToolActivity::State::uncertain, u"uncertain"},
}};

} // namespace

QString ToolActivity::displayArguments() const {
    return ToolText::escaped(call.function.arguments);
}

QString ToolActivity::displayResult() const {
    return result ? ToolText::escaped(*result) : QString();
}

bool ToolActivity::isFinal(State state) {
    return state >= State::completed;
}

QString ToolActivity::toString(State state) {
    return stateNames.name(state);
}

std::optional<ToolActivity::State> ToolActivity::stateFromString(QStringView text) {
    return stateNames.value(text);
}

} // namespace kestrolan
