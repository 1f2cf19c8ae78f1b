// Tool-call arguments are written by the model: anything may arrive. Beyond not crashing, a
// call is either refused with the two expected errors or yields an operation within every
// bound that decodes the same when written back as arguments.
//
//   build-fuzz/bin/fuzz-tool-call -dict=fuzz/tool_call.dict fuzz/corpus/tool_call
//
// Input: the first byte picks the tool name (one past the last is a name nobody knows), the
// rest is the arguments text.

#include "tools/argument_decoding_error.h"
#include "tools/harness_error.h"
#include "tools/tool_operation.h"
#include "tools/tool_result.h"
#include "tools/tool_text.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace kestrolan;
using Op = ToolOperation;

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

const char16_t* const toolNames[] = {u"read_file", u"list_directory", u"search",    u"edit_file",
                                     u"run_shell", u"web_search",     u"web_fetch", u"delete_file"};

QJsonObject arguments(const Op& operation) {
    return std::visit(
        [](const auto& op) -> QJsonObject {
            using T = std::decay_t<decltype(op)>;
            if constexpr (std::is_same_v<T, Op::ReadFile> || std::is_same_v<T, Op::ListDirectory>)
                return {{QStringLiteral("path"), op.path},
                        {QStringLiteral("offset"), op.offset},
                        {QStringLiteral("limit"), op.limit}};
            else if constexpr (std::is_same_v<T, Op::Search>)
                return {{QStringLiteral("path"), op.path},
                        {QStringLiteral("query"), op.query},
                        {QStringLiteral("offset"), op.offset},
                        {QStringLiteral("limit"), op.limit}};
            else if constexpr (std::is_same_v<T, Op::EditFile>) {
                QJsonObject object{{QStringLiteral("path"), op.path},
                                   {QStringLiteral("content"), op.content},
                                   {QStringLiteral("create"), op.create}};
                if (op.expectedHash)
                    object.insert(QStringLiteral("expected_hash"), *op.expectedHash);
                return object;
            } else if constexpr (std::is_same_v<T, Op::RunShell>)
                return {{QStringLiteral("command"), op.command}, {QStringLiteral("cwd"), op.cwd}};
            else if constexpr (std::is_same_v<T, Op::WebSearch>)
                return {{QStringLiteral("query"), op.query}};
            else
                return {{QStringLiteral("url"), op.url}};
        },
        operation.payload());
}

void checkBounds(const Op& operation) {
    const int kinds =
        int(operation.isLocalRead()) + int(operation.isMutation()) + int(operation.isWeb());
    require(kinds == 1, "an operation is exactly one of read, mutation, web");
    std::visit(
        [](const auto& op) {
            using T = std::decay_t<decltype(op)>;
            if constexpr (std::is_same_v<T, Op::ReadFile> || std::is_same_v<T, Op::ListDirectory> ||
                          std::is_same_v<T, Op::Search>) {
                require(op.offset >= 0 && op.offset <= Op::maxOffset, "offset bound");
                require(op.limit >= 1 && op.limit <= Op::maxLimit, "limit bound");
                if constexpr (!std::is_same_v<T, Op::ReadFile>)
                    require(op.limit <= Op::maxListingLimit, "listing limit bound");
                if constexpr (std::is_same_v<T, Op::ReadFile>)
                    require(!op.path.isEmpty(), "read_file path");
                if constexpr (std::is_same_v<T, Op::Search>)
                    require(!op.query.isEmpty() &&
                                op.query.toUtf8().size() <= Op::maxSearchQueryBytes,
                            "search query bound");
            } else if constexpr (std::is_same_v<T, Op::EditFile>) {
                require(!op.path.isEmpty() && !op.content.contains(QChar(u'\0')), "edit content");
                require(op.create != op.expectedHash.has_value(), "hash only for existing files");
            } else if constexpr (std::is_same_v<T, Op::RunShell>) {
                require(!op.command.isEmpty() && !op.command.contains(QChar(u'\0')) &&
                            !op.cwd.contains(QChar(u'\0')),
                        "shell strings");
            } else if constexpr (std::is_same_v<T, Op::WebSearch>) {
                require(!op.query.trimmed().isEmpty() &&
                            op.query.toUtf8().size() <= Op::maxWebTextBytes,
                        "web query bound");
            } else {
                require(!op.url.isEmpty() && op.url.toUtf8().size() <= Op::maxWebTextBytes,
                        "url bound");
            }
        },
        operation.payload());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const QString name = QString::fromUtf16(toolNames[data[0] % std::size(toolNames)]);
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data + 1),
                                           static_cast<qsizetype>(size - 1));
    const ToolCall call{QStringLiteral("call_1"), QStringLiteral("function"), {name, text}};

    // Display text never keeps an escape or a control character, and filtering is stable.
    const QString shown = ToolText::escaped(text);
    require(!shown.contains(QChar(0x1B)) && !shown.contains(QChar(u'\r')), "escape kept");
    require(ToolText::escaped(shown) == shown, "escaping is not idempotent");
    // A result is its bytes repaired, or the replacement text.
    const QByteArray bytes = text.toUtf8();
    const QString result = ToolResult::bounded(bytes);
    require(bytes.size() > ToolResult::maxBytes ? result == ToolResult::truncated()
                                                : result == QString::fromUtf8(bytes),
            "result bound");

    std::optional<Op> operation;
    try {
        operation.emplace(call);
    } catch (const HarnessError& error) {
        require(error.kind() == HarnessError::Kind::invalidArguments, "unexpected harness error");
        return 0;
    } catch (const ArgumentDecodingError&) {
        return 0;
    }
    require(operation->name() == name, "operation of another tool");
    checkBounds(*operation);

    const QString written =
        QString::fromUtf8(QJsonDocument(arguments(*operation)).toJson(QJsonDocument::Compact));
    const ToolCall again{call.id, call.type, {name, written}};
    try {
        require(Op(again) == *operation, "written-back arguments decode differently");
    } catch (const std::exception&) {
        // Only the size of the text may differ: numbers are written in full.
        require(written.toUtf8().size() > Op::maxArgumentBytes, "written-back arguments refused");
    }
    return 0;
}
