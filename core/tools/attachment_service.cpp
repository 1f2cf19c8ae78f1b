#include "tools/attachment_service.h"

#include "support/unique_fd.h"
#include "tools/attachment_error.h"
#include "tools/text_attachments.h"

#include <QCoroFuture>
#include <QFile>
#include <QStringDecoder>
#include <QtConcurrent>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <variant>

namespace kestrolan {

namespace {

using Kind = AttachmentError::Kind;

WireAttachment readFile(const QUrl& url) {
    const QString name = url.fileName();
    if (!url.isLocalFile())
        throw AttachmentError(Kind::unreadable, name);
    // Non-blocking, so that opening a FIFO returns at once; fstat then refuses it.
    const UniqueFd fd(::open(QFile::encodeName(url.toLocalFile()).constData(),
                             O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd.isValid())
        throw AttachmentError(Kind::unreadable, name);

    struct stat status {};
    if (::fstat(fd.get(), &status) != 0)
        throw AttachmentError(Kind::unreadable, name);
    if (!S_ISREG(status.st_mode))
        throw AttachmentError(Kind::notRegularFile, name);
    if (status.st_size > TextAttachments::maxFileBytes)
        throw AttachmentError(Kind::fileTooLarge, name);

    // One byte more than allowed tells a file that grew since fstat.
    QByteArray bytes(TextAttachments::maxFileBytes + 1, Qt::Uninitialized);
    const qsizetype length = fd.readAll(bytes.data(), bytes.size());
    if (length < 0)
        throw AttachmentError(Kind::unreadable, name);
    if (length > TextAttachments::maxFileBytes)
        throw AttachmentError(Kind::fileTooLarge, name);
    bytes.truncate(length);

    if (bytes.contains('\0'))
        throw AttachmentError(Kind::notText, name);
    // Stateless: a sequence cut off at the end is an error, not state kept for more input.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        throw AttachmentError(Kind::notText, name);
    return {name, std::move(text)};
}

// QtConcurrent would wrap the error in QUnhandledException; it travels back as it was.
using Outcome = std::variant<QList<WireAttachment>, std::exception_ptr>;

Outcome readCaught(const QList<QUrl>& files) {
    try {
        return AttachmentService::readBlocking(files);
    } catch (...) {
        return std::current_exception();
    }
}

} // namespace

AttachmentService::AttachmentService() {
    m_queue.setMaxThreadCount(1);
    m_queue.setObjectName(QStringLiteral("org.kestrolan.mac.attachments"));
}

AttachmentService::~AttachmentService() {
    m_queue.waitForDone();
}

QCoro::Task<QList<WireAttachment>> AttachmentService::read(QList<QUrl> files) {
    Outcome outcome = co_await QtConcurrent::run(&m_queue, &readCaught, files);
    if (auto* error = std::get_if<std::exception_ptr>(&outcome))
        std::rethrow_exception(*error);
    QList<WireAttachment> attachments = std::get<QList<WireAttachment>>(std::move(outcome));
    co_return attachments;
}

QList<WireAttachment> AttachmentService::readBlocking(const QList<QUrl>& files) {
    if (files.size() > TextAttachments::maxFiles)
        throw AttachmentError(Kind::tooManyFiles, files.at(TextAttachments::maxFiles).fileName());
    QList<WireAttachment> attachments;
    attachments.reserve(files.size());
    for (const QUrl& file : files)
        attachments.append(readFile(file));
    // The total, and the same checks a saved chat's attachments get.
    if (auto violation = TextAttachments::violation(attachments))
        throw *violation;
    return attachments;
}

} // namespace kestrolan
