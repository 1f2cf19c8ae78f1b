#include "chat_command.h"

#include "chat_options.h"
#include "chat_run.h"

namespace kestrolan::cli {

QString ChatCommand::name() const {
    return QStringLiteral("chat");
}

QString ChatCommand::summary() const {
    return QStringLiteral("Chat with a model, with tools, approvals and charges");
}

QCoro::Task<int> ChatCommand::run(QStringList arguments) {
    auto parsed = ChatOptions::parse(console(), arguments);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    ChatRun chat(console(), std::get<ChatOptions>(std::move(parsed)));
    const int code = co_await chat.run();
    co_return code;
}

} // namespace kestrolan::cli
