#pragma once

#include "account/catalog_model.h"
#include "conversation/chat_request.h"
#include "conversation/saved_conversation.h"
#include "conversation/turn_context.h"
#include "tools/web_tool_settings.h"

#include <QList>
#include <QString>

namespace kestrolan {

// The requests of one reply's inference rounds. Holds what the reply started with, so that
// settings typed while it streams apply from the next turn on.
class RoundRequestBuilder {
public:
    RoundRequestBuilder(QString model, CatalogModel catalogModel,
                        SavedConversation::Settings settings, TurnContext context,
                        WebToolSettings web);

    // Put before every request's system text: what tools return never carries authority.
    static QString safetyText();

    bool toolCalling() const;
    const CatalogModel& catalogModel() const { return m_catalogModel; }

    // The instructions of the project and agent, the chat's own system text, the safety text
    // and the web tools' text, in that order.
    QString systemText() const;

    // max_tokens is the typed setting or the model's default allowance; temperature is sent
    // only when the setting is a finite number; the tool keys only when tools are offered.
    ChatRequest build(QList<ChatMessage> messages, const QList<ToolDefinition>& offered) const;

private:
    QString m_model;
    CatalogModel m_catalogModel;
    SavedConversation::Settings m_settings;
    TurnContext m_context;
    WebToolSettings m_web;
};

} // namespace kestrolan
