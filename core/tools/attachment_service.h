#pragma once

#include "tools/wire_attachment.h"

#include <QCoroTask>
#include <QList>
#include <QThreadPool>
#include <QUrl>

namespace kestrolan {

// Reads the files attached to a user message, off the main thread. Only regular files of
// UTF-8 text within the attachment limits are taken; each keeps its file name.
class AttachmentService {
public:
    AttachmentService();
    // Waits for a read already under way.
    ~AttachmentService();
    AttachmentService(const AttachmentService&) = delete;
    AttachmentService& operator=(const AttachmentService&) = delete;

    // Throws AttachmentError for the first file that breaks a rule; then nothing is attached.
    QCoro::Task<QList<WireAttachment>> read(QList<QUrl> files);

    // The same, blocking: for worker threads.
    static QList<WireAttachment> readBlocking(const QList<QUrl>& files);

private:
    QThreadPool m_queue;
};

} // namespace kestrolan
