#include "qstring_printer.h"
#include "tools/argument_decoding_error.h"
#include "tools/harness_error.h"
#include "tools/reject_unknown_fields.h"
#include "tools/tool_operation.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

using namespace kestrolan;
using Op = ToolOperation;

namespace {

ToolCall call(const char* name, const QString& arguments,
              const QString& id = QStringLiteral("call_1"),
              const QString& type = QStringLiteral("function")) {
    return ToolCall{id, type, {QString::fromUtf8(name), arguments}};
}

ToolCall call(const char* name, const char* arguments) {
    return call(name, QString::fromUtf8(arguments));
}

// "ok", "invalid" (the refusal) or "undecodable" (the arguments' own decoding failure).
std::string outcome(const ToolCall& toolCall) {
    try {
        ToolOperation operation(toolCall);
        return "ok";
    } catch (const HarnessError& error) {
        EXPECT_EQ(error.kind(), HarnessError::Kind::invalidArguments);
        EXPECT_EQ(error.description(), u"The tool call is invalid.");
        return "invalid";
    } catch (const ArgumentDecodingError&) {
        return "undecodable";
    }
}

std::string outcome(const char* name, const char* arguments) {
    return outcome(call(name, arguments));
}

QString json(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

TEST(ToolOperation, DecodesEachToolWithDefaults) {
    EXPECT_EQ(Op(call("read_file", R"({"path":"notes.txt"})")),
              Op(Op::ReadFile{QStringLiteral("notes.txt"), 0, 100}));
    EXPECT_EQ(Op(call("list_directory", R"({"path":"","offset":5,"limit":1000})")),
              Op(Op::ListDirectory{QString(), 5, 1000}));
    EXPECT_EQ(Op(call("search", R"({"path":"src","query":"TODO","limit":2.0})")),
              Op(Op::Search{QStringLiteral("src"), QStringLiteral("TODO"), 0, 2}));
    EXPECT_EQ(Op(call("edit_file", R"({"path":"a","content":"","create":true})")),
              Op(Op::EditFile{QStringLiteral("a"), std::nullopt, QString(), true}));
    EXPECT_EQ(Op(call("run_shell", R"({"command":"ls -l","cwd":""})")),
              Op(Op::RunShell{QStringLiteral("ls -l"), QString()}));
    // The query is kept as sent, untrimmed.
    EXPECT_EQ(Op(call("web_search", R"({"query":"  kestrel  "})")),
              Op(Op::WebSearch{QStringLiteral("  kestrel  ")}));
    EXPECT_EQ(Op(call("web_fetch", R"({"url":"https://example.org/"})")),
              Op(Op::WebFetch{QStringLiteral("https://example.org/")}));
    EXPECT_EQ(outcome("delete_file", R"({"path":"a"})"), "invalid");
}

TEST(ToolOperation, ChecksTheCallBeforeItsArguments) {
    // Malformed arguments would fail to decode; the call's own faults are found first.
    EXPECT_EQ(outcome(call("read_file", QStringLiteral("{"), QStringLiteral("c"),
                           QStringLiteral("tool"))),
              "invalid");
    EXPECT_EQ(outcome(call("read_file", QStringLiteral("{"), QString())), "invalid");
    EXPECT_EQ(outcome(call("read_file", QStringLiteral("{"), QString(201, u'x'))), "invalid");
    EXPECT_EQ(outcome(call("read_file", QStringLiteral("{"), QString(200, u'x'))), "undecodable");
    // The id is measured in UTF-8 bytes: 67 three-byte characters are 201 bytes.
    EXPECT_EQ(outcome(call("read_file", QStringLiteral("{"), QString(67, QChar(0x20AC)))),
              "invalid");
    EXPECT_EQ(outcome(call("read_file", QStringLiteral("{"), QString(66, QChar(0x20AC)))),
              "undecodable");

    // Arguments of exactly 65,536 bytes are read; one more byte is refused unread.
    const QString prefix = QStringLiteral(R"({"path":"a","create":true,"content":")");
    const QString suffix = QStringLiteral(R"("})");
    const QString exact = prefix + QString(65'536 - prefix.size() - suffix.size(), u'x') + suffix;
    ASSERT_EQ(exact.toUtf8().size(), 65'536);
    EXPECT_EQ(outcome(call("edit_file", exact)), "ok");
    const QString over = prefix + QString(65'537 - prefix.size() - suffix.size(), u'x') + suffix;
    EXPECT_EQ(outcome(call("edit_file", over)), "invalid");
    // Multi-byte text counts in bytes, not characters.
    const QString wide = prefix + QString(21'830, QChar(0x20AC)) + suffix; // 65,529 bytes
    EXPECT_EQ(outcome(call("edit_file", wide)), "ok");
    const QString wider = prefix + QString(21'834, QChar(0x20AC)) + suffix; // 65,541 bytes
    EXPECT_EQ(outcome(call("edit_file", wider)), "invalid");
}

TEST(ToolOperation, ArgumentsMustBeAnObjectOfCorrectlyTypedValues) {
    for (const char* arguments : {"", "not json", "[]", "\"path\"", "null", R"({"path":5})",
                                  R"({"path":"a","offset":"1"})", R"({"path":"a","limit":1.5})",
                                  R"({"path":"a","limit":true})", R"({"path":"a","offset":1e300})"})
        EXPECT_EQ(outcome("read_file", arguments), "undecodable") << arguments;
    // Every known key is typed before the tool is looked at: a wrongly typed key of another
    // tool fails the decode rather than the key check.
    EXPECT_EQ(outcome("read_file", R"({"path":"a","query":5})"), "undecodable");
    EXPECT_EQ(outcome("no_such_tool", R"({"create":"yes"})"), "undecodable");
    EXPECT_EQ(outcome("edit_file", R"({"path":"a","content":"x","create":1})"), "undecodable");
    // Keys nobody knows are only listed, never typed.
    EXPECT_EQ(outcome("read_file", R"({"path":"a","mode":[1,{}]})"), "invalid");
}

TEST(ToolOperation, PagingBoundsHoldForEveryFileToolAtTheirEdges) {
    for (const char* tool : {"read_file", "list_directory", "search"}) {
        const QString base = std::string(tool) == "search"
                                 ? QStringLiteral(R"("path":"p","query":"q")")
                                 : QStringLiteral(R"("path":"p")");
        const auto fix = [&](const char* paging) {
            return outcome(call(tool, u'{' + base + u',' + QString::fromUtf8(paging) + u'}'));
        };
        EXPECT_EQ(fix(R"("limit":0)"), "invalid") << tool;
        EXPECT_EQ(fix(R"("limit":32769)"), "invalid") << tool;
        EXPECT_EQ(fix(R"("offset":-1)"), "invalid") << tool;
        EXPECT_EQ(fix(R"("offset":10000001)"), "invalid") << tool;
        EXPECT_EQ(fix(R"("offset":10000000,"limit":1)"), "ok") << tool;
        EXPECT_EQ(fix(R"("limit":1000)"), "ok") << tool;
        EXPECT_EQ(fix(R"("limit":1001)"), std::string(tool) == "read_file" ? "ok" : "invalid")
            << tool;
    }
    EXPECT_EQ(Op(call("read_file", R"({"path":"p","limit":32768})")),
              Op(Op::ReadFile{QStringLiteral("p"), 0, 32'768}));
    // The bounds come before the tool name, for tools that take no paging too.
    EXPECT_EQ(outcome("web_fetch", R"({"url":"https://a.example","limit":0})"), "invalid");
}

TEST(ToolOperation, RefusesUnknownAndForeignKeysAndTreatsNullAsAbsent) {
    EXPECT_EQ(outcome("read_file", R"({"path":"a","mode":"r"})"), "invalid");
    EXPECT_EQ(outcome("read_file", R"({"path":"a","query":"x"})"), "invalid");
    EXPECT_EQ(outcome("web_search", R"({"query":"x","url":"https://a.example"})"), "invalid");
    EXPECT_EQ(outcome("run_shell", R"({"command":"ls"})"), "invalid"); // cwd is required
    EXPECT_EQ(outcome("edit_file", R"({"path":"a","content":"x"})"), "invalid");

    // A null value counts as present for the key check, and as absent afterwards.
    EXPECT_EQ(Op(call("read_file", R"({"path":"a","offset":null,"limit":null})")),
              Op(Op::ReadFile{QStringLiteral("a"), 0, 100}));
    EXPECT_EQ(outcome("read_file", R"({"path":null})"), "invalid");
    EXPECT_EQ(outcome("read_file", R"({"path":"a","query":null})"), "invalid");
    EXPECT_EQ(outcome("edit_file", R"({"path":"a","content":"x","create":null})"), "invalid");
    EXPECT_EQ(
        Op(call("edit_file", R"({"path":"a","content":"x","create":true,"expected_hash":null})")),
        Op(Op::EditFile{QStringLiteral("a"), std::nullopt, QStringLiteral("x"), true}));
}

TEST(ToolOperation, AppliesEachToolsOwnChecks) {
    EXPECT_EQ(outcome("read_file", R"({"path":""})"), "invalid");
    EXPECT_EQ(outcome("list_directory", R"({"path":""})"), "ok");
    EXPECT_EQ(outcome("search", R"({"path":"","query":"x"})"), "ok");
    EXPECT_EQ(outcome("search", R"({"path":"","query":""})"), "invalid");
    const auto search = [](qsizetype bytes) {
        return outcome(call("search", json({{QStringLiteral("path"), QString()},
                                            {QStringLiteral("query"), QString(bytes, u'q')}})));
    };
    EXPECT_EQ(search(1024), "ok");
    EXPECT_EQ(search(1025), "invalid");

    const auto edit = [](bool create, std::optional<QString> hash, QString content) {
        QJsonObject arguments{{QStringLiteral("path"), QStringLiteral("a.txt")},
                              {QStringLiteral("content"), content},
                              {QStringLiteral("create"), create}};
        if (hash)
            arguments.insert(QStringLiteral("expected_hash"), *hash);
        return outcome(call("edit_file", json(arguments)));
    };
    EXPECT_EQ(edit(false, QString(64, u'a'), QStringLiteral("x")), "ok");
    EXPECT_EQ(edit(false, QString(63, u'a'), QStringLiteral("x")), "invalid");
    EXPECT_EQ(edit(false, QString(65, u'a'), QStringLiteral("x")), "invalid");
    EXPECT_EQ(edit(false, std::nullopt, QStringLiteral("x")), "invalid");
    EXPECT_EQ(edit(true, QString(), QStringLiteral("x")), "invalid");
    EXPECT_EQ(edit(true, QString(64, u'a'), QStringLiteral("x")), "invalid");
    EXPECT_EQ(edit(true, std::nullopt, QString::fromUtf16(u"a\0b", 3)), "invalid");
    // Characters, not code units: 64 emoji are 64 characters.
    QString emoji;
    for (int i = 0; i < 64; ++i)
        emoji += QStringLiteral("\U0001F600");
    EXPECT_EQ(edit(false, emoji, QStringLiteral("x")), "ok");
    EXPECT_EQ(outcome("edit_file", R"({"path":"","content":"x","create":true})"), "invalid");

    EXPECT_EQ(outcome("run_shell", R"({"command":"","cwd":"/tmp"})"), "invalid");
    EXPECT_EQ(outcome("run_shell", R"({"command":"ls","cwd":"/tmp\u0000"})"), "invalid");
    EXPECT_EQ(outcome("run_shell", R"({"command":"ls\u0000","cwd":"/tmp"})"), "invalid");

    const auto web = [](const char* tool, const char* key, QString value) {
        return outcome(call(tool, json({{QString::fromUtf8(key), value}})));
    };
    EXPECT_EQ(web("web_search", "query", QStringLiteral(" \t\n ")), "invalid");
    EXPECT_EQ(web("web_search", "query", QString(8192, u'q')), "ok");
    EXPECT_EQ(web("web_search", "query", QString(8193, u'q')), "invalid");
    EXPECT_EQ(web("web_search", "query", QString::fromUtf16(u"a\0b", 3)), "invalid");
    EXPECT_EQ(web("web_fetch", "url", QString()), "invalid");
    EXPECT_EQ(web("web_fetch", "url", QString(8192, u'u')), "ok");
    EXPECT_EQ(web("web_fetch", "url", QString(8193, u'u')), "invalid");
    EXPECT_EQ(web("web_fetch", "url", QString::fromUtf16(u"https://a\0", 10)), "invalid");
}

TEST(ToolOperation, DerivedProperties) {
    const Op read(Op::ReadFile{QStringLiteral("a.txt")});
    const Op list(Op::ListDirectory{QStringLiteral("dir")});
    const Op search(Op::Search{QStringLiteral("src"), QStringLiteral("needle")});
    const Op edit(Op::EditFile{QStringLiteral("b.txt"), std::nullopt, QString(), true});
    const Op shell(Op::RunShell{QStringLiteral("rm -rf build"), QStringLiteral("/home/u")});
    const Op webSearch(Op::WebSearch{QStringLiteral("kestrels")});
    const Op fetch(Op::WebFetch{QStringLiteral("https://a.example")});

    EXPECT_EQ(read.name(), u"read_file");
    EXPECT_EQ(list.name(), u"list_directory");
    EXPECT_EQ(search.name(), u"search");
    EXPECT_EQ(edit.name(), u"edit_file");
    EXPECT_EQ(shell.name(), u"run_shell");
    EXPECT_EQ(webSearch.name(), u"web_search");
    EXPECT_EQ(fetch.name(), u"web_fetch");

    EXPECT_EQ(search.target(), u"src");
    EXPECT_EQ(edit.target(), u"b.txt");
    EXPECT_EQ(shell.target(), u"/home/u"); // the directory, never the command
    EXPECT_EQ(webSearch.target(), u"kestrels");
    EXPECT_EQ(fetch.target(), u"https://a.example");

    for (const auto& op : {read, list, search})
        EXPECT_TRUE(op.isLocalRead() && !op.isMutation() && !op.isWeb()) << op.name().toStdString();
    for (const auto& op : {edit, shell})
        EXPECT_TRUE(!op.isLocalRead() && op.isMutation() && !op.isWeb()) << op.name().toStdString();
    for (const auto& op : {webSearch, fetch})
        EXPECT_TRUE(!op.isLocalRead() && !op.isMutation() && op.isWeb()) << op.name().toStdString();
}

TEST(RejectUnknownFields, RefusesAnyKeyOutsideTheAllowedSet) {
    const QSet<QString> allowed{QStringLiteral("id"), QStringLiteral("type")};
    EXPECT_NO_THROW(rejectUnknownFields(QJsonObject{{QStringLiteral("id"), 1}}, allowed));
    EXPECT_NO_THROW(rejectUnknownFields(QJsonObject{}, allowed));
    EXPECT_THROW(rejectUnknownFields(QJsonObject{{QStringLiteral("id"), 1},
                                                 {QStringLiteral("extra"), QJsonValue()}},
                                     allowed),
                 HarnessError);
    EXPECT_THROW(rejectUnknownFields(QJsonObject{{QStringLiteral("ID"), 1}}, allowed),
                 HarnessError);
}
