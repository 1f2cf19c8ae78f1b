#include "run_task.h"
#include "tools/attachment_error.h"
#include "tools/attachment_service.h"
#include "tools/text_attachments.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

class AttachmentServiceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_temp.isValid()); }

    QUrl file(const QString& name, const QByteArray& bytes) {
        QFile out(m_temp.filePath(name));
        EXPECT_TRUE(out.open(QIODevice::WriteOnly));
        EXPECT_EQ(out.write(bytes), bytes.size());
        return QUrl::fromLocalFile(out.fileName());
    }

    QUrl path(const QString& name) const { return QUrl::fromLocalFile(m_temp.filePath(name)); }

    // The refusal of reading `files` through the service, or a failure when they were taken.
    std::optional<AttachmentError> refusal(QList<QUrl> files) {
        try {
            const auto taken = runTask(m_service.read(std::move(files)));
            ADD_FAILURE() << "took " << taken.size() << " files";
        } catch (const AttachmentError& error) {
            return error;
        }
        return std::nullopt;
    }

    QTemporaryDir m_temp;
    AttachmentService m_service;
};

QString limits() {
    return TextAttachments::limitsDescription();
}

} // namespace

TEST_F(AttachmentServiceTest, ReadsTextFilesUnderTheirNames) {
    const QByteArray code = "fn main() {\n    println!(\"grüße 🌊\");\n}\n";
    const QByteArray edge(TextAttachments::maxFileBytes, 'x');
    const auto attachments =
        runTask(m_service.read({file(u"main.rs"_s, code), file(u"edge.txt"_s, edge),
                                file(u"empty.md"_s, {}), file(u"bom.txt"_s, "\xEF\xBB\xBFhi")}));
    ASSERT_EQ(attachments.size(), 4);
    EXPECT_EQ(attachments[0], (WireAttachment{u"main.rs"_s, QString::fromUtf8(code)}));
    EXPECT_EQ(attachments[1].name, u"edge.txt");
    EXPECT_EQ(attachments[1].text.size(), TextAttachments::maxFileBytes);
    EXPECT_EQ(attachments[2], (WireAttachment{u"empty.md"_s, QString()}));
    EXPECT_EQ(attachments[3].text, u"hi");
}

TEST_F(AttachmentServiceTest, RefusesWhatIsNotTextNamingTheFile) {
    const auto expect = [&](std::optional<AttachmentError> error, AttachmentError::Kind kind,
                            const QString& rule) {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), kind);
        EXPECT_EQ(error->description(), rule + u' ' + limits());
    };
    const QUrl ok = file(u"ok.txt"_s, "fine");
    expect(refusal({ok, file(u"nul.txt"_s, QByteArray("a\0b", 3))}), AttachmentError::Kind::notText,
           u"“nul.txt” is not UTF-8 text or code."_s);
    expect(refusal({file(u"latin1.txt"_s, "caf\xE9")}), AttachmentError::Kind::notText,
           u"“latin1.txt” is not UTF-8 text or code."_s);
    expect(refusal({file(u"cut.txt"_s, "\xF0\x9F\x8C")}), AttachmentError::Kind::notText,
           u"“cut.txt” is not UTF-8 text or code."_s);

    // Neither a FIFO without a writer nor a directory may hold the read up.
    ASSERT_EQ(::mkfifo(QFile::encodeName(m_temp.filePath(u"pipe"_s)).constData(), 0600), 0);
    expect(refusal({ok, path(u"pipe"_s)}), AttachmentError::Kind::notRegularFile,
           u"“pipe” is not a regular file."_s);
    ASSERT_TRUE(QDir(m_temp.path()).mkdir(u"folder"_s));
    expect(refusal({path(u"folder"_s)}), AttachmentError::Kind::notRegularFile,
           u"“folder” is not a regular file."_s);
    expect(refusal({path(u"missing.txt"_s)}), AttachmentError::Kind::unreadable,
           u"“missing.txt” could not be read."_s);
    expect(refusal({QUrl(u"https://example.com/a.txt"_s)}), AttachmentError::Kind::unreadable,
           u"“a.txt” could not be read."_s);
}

TEST_F(AttachmentServiceTest, EnforcesEveryLimitAtItsEdge) {
    const auto kindOf = [&](QList<QUrl> files) {
        const auto error = refusal(std::move(files));
        return error ? std::optional(std::pair(error->kind(), error->fileName())) : std::nullopt;
    };
    const QUrl tooBig = file(u"big.log"_s, QByteArray(TextAttachments::maxFileBytes + 1, 'x'));
    EXPECT_EQ(kindOf({tooBig}), std::pair(AttachmentError::Kind::fileTooLarge, u"big.log"_s));

    const QUrl half = file(u"half.txt"_s, QByteArray(TextAttachments::maxFileBytes, 'h'));
    const QUrl other = file(u"other.txt"_s, QByteArray(TextAttachments::maxFileBytes, 'o'));
    const QUrl one = file(u"one.txt"_s, "1");
    EXPECT_EQ(runTask(m_service.read({half, other})).size(), 2); // exactly 128 KiB
    EXPECT_EQ(kindOf({half, other, one}),
              std::pair(AttachmentError::Kind::totalTooLarge, u"one.txt"_s));

    QList<QUrl> many;
    for (int i = 1; i <= TextAttachments::maxFiles; ++i)
        many.append(file(u"f%1.txt"_s.arg(i), "x"));
    EXPECT_EQ(runTask(m_service.read(many)).size(), TextAttachments::maxFiles);
    many.append(file(u"f21.txt"_s, "x"));
    EXPECT_EQ(kindOf(many), std::pair(AttachmentError::Kind::tooManyFiles, u"f21.txt"_s));
    EXPECT_EQ(AttachmentError(AttachmentError::Kind::tooManyFiles, u"f21.txt"_s).description(),
              u"“f21.txt” is one file too many. "_s + limits());
}
