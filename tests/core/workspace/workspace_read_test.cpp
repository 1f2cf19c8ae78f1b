#include "tools/tool_result.h"
#include "workspace/file_digest.h"
#include "workspace_fixture.h"

#include <QJsonArray>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

TEST_F(WorkspaceTest, ReadsPagesOfLinesWithTotalsSizeAndHash) {
    const QByteArray text = "one\ntwo\r\nthree\nfour";
    write(u"a.txt"_s, text);
    write(u"ends.txt"_s, "a\nb\n");
    write(u"empty.txt"_s, "");
    const auto workspace = open();

    const QJsonObject whole = run(*workspace, readFile(u"a.txt"_s));
    EXPECT_EQ(whole[u"content"], QString::fromUtf8(text));
    EXPECT_EQ(whole[u"line_count"], 4);
    EXPECT_EQ(whole[u"size"], text.size());
    EXPECT_EQ(whole[u"sha256"], sha256(text));
    EXPECT_EQ(whole[u"untrusted"], true);
    EXPECT_FALSE(whole.contains(u"next_offset"));

    const QJsonObject middle = run(*workspace, readFile(u"a.txt"_s, 1, 2));
    EXPECT_EQ(middle[u"content"], u"two\r\nthree\n"_s);
    EXPECT_EQ(middle[u"next_offset"], 3);
    EXPECT_EQ(middle[u"sha256"], sha256(text));
    const QJsonObject last = run(*workspace, readFile(u"a.txt"_s, 3, 1));
    EXPECT_EQ(last[u"content"], u"four"_s);
    EXPECT_FALSE(last.contains(u"next_offset"));
    for (const qint64 beyond : {qint64(4), ToolOperation::maxOffset}) {
        const QJsonObject past = run(*workspace, readFile(u"a.txt"_s, beyond, 1));
        EXPECT_EQ(past[u"content"], QString());
        EXPECT_FALSE(past.contains(u"next_offset"));
    }

    EXPECT_EQ(run(*workspace, readFile(u"ends.txt"_s))[u"line_count"], 2);
    EXPECT_EQ(run(*workspace, readFile(u"ends.txt"_s, 1, 1))[u"content"], u"b\n"_s);
    const QJsonObject empty = run(*workspace, readFile(u"empty.txt"_s));
    EXPECT_EQ(empty[u"line_count"], 0);
    EXPECT_EQ(empty[u"content"], QString());
    EXPECT_EQ(empty[u"sha256"], sha256({}));
}

TEST_F(WorkspaceTest, RepairsInvalidUtf8AndReportsBinaryFilesWithoutText) {
    write(u"broken.txt"_s, "ok \xff\xfe end\n");
    QByteArray early(FileDigest::binaryProbeBytes, 'a');
    early[FileDigest::binaryProbeBytes - 1] = '\0';
    write(u"early.bin"_s, early);
    QByteArray late = early;
    late[FileDigest::binaryProbeBytes - 1] = 'a';
    late.append('\0');
    write(u"late.txt"_s, late);
    const auto workspace = open();

    EXPECT_EQ(run(*workspace, readFile(u"broken.txt"_s))[u"content"], u"ok \uFFFD\uFFFD end\n"_s);
    const QJsonObject binary = run(*workspace, readFile(u"early.bin"_s));
    EXPECT_EQ(binary[u"binary"], true);
    EXPECT_FALSE(binary.contains(u"content"));
    EXPECT_EQ(binary[u"size"], early.size());
    EXPECT_EQ(binary[u"sha256"], sha256(early));
    const QJsonObject text = run(*workspace, readFile(u"late.txt"_s));
    EXPECT_FALSE(text.contains(u"binary"));
    EXPECT_EQ(text[u"content"].toString().size(), late.size());
}

TEST_F(WorkspaceTest, HashesFilesUpToSixteenMebibytesAndRefusesLarger) {
    for (const auto& [name, size] : {std::pair{u"edge.bin"_s, FileDigest::maxBytes},
                                     std::pair{u"over.bin"_s, FileDigest::maxBytes + 1}}) {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_TRUE(file.resize(size));
    }
    const auto workspace = open();
    const QJsonObject edge = run(*workspace, readFile(u"edge.bin"_s));
    EXPECT_EQ(edge[u"size"], FileDigest::maxBytes);
    EXPECT_EQ(edge[u"sha256"], sha256(QByteArray(FileDigest::maxBytes, '\0')));
    EXPECT_EQ(harnessKind(*workspace, readFile(u"over.bin"_s)), HarnessError::Kind::limit);
}

TEST_F(WorkspaceTest, ShortensAPageToFitTheResultInsteadOfLosingIt) {
    QByteArray text;
    // Past one read block (256 KiB), so lines also arrive split between blocks.
    for (int line = 0; line < 300; ++line)
        text += QByteArray::number(line) + ' ' + QByteArray(1000, 'x') + '\n';
    write(u"long.txt"_s, text);
    write(u"one-line.txt"_s, QByteArray(ToolResult::maxBytes + 1, 'y'));
    const auto workspace = open();

    // Reading page after page gives back the whole file, every page within the limit.
    QString joined;
    qint64 offset = 0;
    for (int page = 0; page < 300; ++page) {
        const QString result =
            execute(*workspace, readFile(u"long.txt"_s, offset, ToolOperation::maxLimit));
        EXPECT_LE(result.toUtf8().size(), ToolResult::maxBytes);
        const QJsonObject object = QJsonDocument::fromJson(result.toUtf8()).object();
        EXPECT_EQ(object[u"line_count"], 300);
        const QString content = object[u"content"].toString();
        ASSERT_FALSE(content.isEmpty());
        joined += content;
        if (!object.contains(u"next_offset"))
            break;
        EXPECT_EQ(object[u"next_offset"].toInteger(), offset + content.count(u'\n'));
        offset = object[u"next_offset"].toInteger();
    }
    EXPECT_GT(offset, 0);
    EXPECT_EQ(joined, QString::fromUtf8(text));
    // A single line beyond the limit cannot be shortened.
    EXPECT_EQ(execute(*workspace, readFile(u"one-line.txt"_s)), ToolResult::truncated());
}

TEST_F(WorkspaceTest, ListsPagesOfSortedEntriesWithTypesAndSizes) {
    write(u"b.txt"_s, "bbb");
    write(u"a.txt"_s, "");
    mkdir(u"c"_s);
    symlink(u"a.txt"_s, u"d"_s);
    ASSERT_EQ(::mkfifo(QFile::encodeName(path(u"e"_s)).constData(), 0600), 0);
    const auto workspace = open();

    const QJsonObject all = run(*workspace, ToolOperation::ListDirectory{QString(), 0, 10});
    const QJsonArray expected{
        QJsonObject{{u"name"_s, u"a.txt"_s}, {u"type"_s, u"file"_s}, {u"size"_s, 0}},
        QJsonObject{{u"name"_s, u"b.txt"_s}, {u"type"_s, u"file"_s}, {u"size"_s, 3}},
        QJsonObject{{u"name"_s, u"c"_s}, {u"type"_s, u"directory"_s}},
        QJsonObject{{u"name"_s, u"d"_s}, {u"type"_s, u"symlink"_s}},
        QJsonObject{{u"name"_s, u"e"_s}, {u"type"_s, u"other"_s}}};
    EXPECT_EQ(all[u"entries"].toArray(), expected);
    EXPECT_EQ(all[u"remaining"], 0);
    EXPECT_EQ(all[u"protected_omitted"], 0);
    EXPECT_FALSE(all.contains(u"next_offset"));

    const QJsonObject middle = run(*workspace, ToolOperation::ListDirectory{QString(), 1, 2});
    EXPECT_EQ(middle[u"entries"].toArray(), (QJsonArray{expected[1], expected[2]}));
    EXPECT_EQ(middle[u"remaining"], 2);
    EXPECT_EQ(middle[u"next_offset"], 3);
    const QJsonObject past = run(*workspace, ToolOperation::ListDirectory{u"c"_s, 5, 2});
    EXPECT_TRUE(past[u"entries"].toArray().isEmpty());
    EXPECT_EQ(past[u"remaining"], 0);
    EXPECT_EQ(fileErrorKind(*workspace, ToolOperation::ListDirectory{u"a.txt"_s, 0, 2}),
              WorkspaceFileError::Kind::notDirectory);

    // A full page of long names is shortened to fit; the rest stays reachable.
    for (int index = 0; index < 300; ++index)
        write(u"c/"_s + QString::number(1000 + index) + QString(100, u'n'), "");
    const QJsonObject page = run(*workspace, ToolOperation::ListDirectory{u"c"_s, 0, 1000});
    const qsizetype shown = page[u"entries"].toArray().size();
    EXPECT_GT(shown, 0);
    EXPECT_LT(shown, 300);
    EXPECT_EQ(page[u"next_offset"], shown);
    EXPECT_EQ(page[u"remaining"], 300 - shown);
}
