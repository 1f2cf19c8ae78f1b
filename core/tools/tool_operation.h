#pragma once

#include "conversation/tool_call.h"

#include <QString>
#include <optional>
#include <variant>

namespace kestrolan {

// One tool call, decoded and checked. Building one from a call either yields a complete,
// valid operation or throws: HarnessError(invalidArguments) for a refused call, or
// ArgumentDecodingError when the arguments are not an object of correctly typed values.
class ToolOperation {
public:
    static constexpr qsizetype maxCallIDBytes = 200;
    static constexpr qsizetype maxArgumentBytes = 65'536;
    static constexpr qint64 maxOffset = 10'000'000;
    static constexpr qint64 maxLimit = 32'768;
    static constexpr qint64 defaultLimit = 100;
    static constexpr qint64 maxListingLimit = 1'000;
    static constexpr qsizetype maxSearchQueryBytes = 1'024;
    static constexpr qsizetype maxWebTextBytes = 8'192;
    static constexpr qsizetype hashCharacters = 64;

    struct ReadFile {
        QString path;
        qint64 offset = 0;
        qint64 limit = defaultLimit;
        bool operator==(const ReadFile&) const = default;
    };
    struct ListDirectory {
        QString path;
        qint64 offset = 0;
        qint64 limit = defaultLimit;
        bool operator==(const ListDirectory&) const = default;
    };
    struct Search {
        QString path;
        QString query;
        qint64 offset = 0;
        qint64 limit = defaultLimit;
        bool operator==(const Search&) const = default;
    };
    struct EditFile {
        QString path;
        std::optional<QString> expectedHash;
        QString content;
        bool create = false;
        bool operator==(const EditFile&) const = default;
    };
    struct RunShell {
        QString command;
        QString cwd;
        bool operator==(const RunShell&) const = default;
    };
    struct WebSearch {
        QString query;
        bool operator==(const WebSearch&) const = default;
    };
    struct WebFetch {
        QString url;
        bool operator==(const WebFetch&) const = default;
    };

    using Payload =
        std::variant<ReadFile, ListDirectory, Search, EditFile, RunShell, WebSearch, WebFetch>;

    // Takes the payload as it stands: for operations the app itself makes.
    explicit ToolOperation(Payload payload);
    // Decodes and checks the model's call.
    explicit ToolOperation(const ToolCall& call);

    const Payload& payload() const { return m_payload; }

    // The tool name of the call ("read_file", ...).
    QString name() const;
    // What the operation is about: the path, the shell's working directory (not the command),
    // the search query or the URL.
    QString target() const;
    bool isLocalRead() const;
    bool isMutation() const;
    bool isWeb() const;

    bool operator==(const ToolOperation&) const = default;

private:
    Payload m_payload;
};

} // namespace kestrolan
