#include "workspace/file_reader.h"

#include "tools/operation_cancellation.h"
#include "tools/tool_result.h"
#include "workspace/file_digest.h"
#include "workspace/page_fit.h"
#include "workspace/path_resolver.h"
#include "workspace/workspace_file_error.h"

#include <QList>
#include <algorithm>
#include <bit>
#include <cstring>

namespace kestrolan {

namespace {

// Newlines in [data, end), eight bytes at a time: the count runs over every byte of files of up
// to 16 MiB, and a plain loop is not vectorised at this optimisation level.
qint64 countNewlines(const char* data, const char* end) {
    constexpr quint64 newlines = 0x0A0A0A0A0A0A0A0AULL;
    constexpr quint64 low7 = 0x7F7F7F7F7F7F7F7FULL;
    constexpr quint64 high = 0x8080808080808080ULL;
    qint64 count = 0;
    for (; end - data >= 8; data += 8) {
        quint64 word;
        std::memcpy(&word, data, sizeof word);
        word ^= newlines;
        // The high bit of each byte is set exactly when that byte is not a newline.
        const quint64 nonZero = ((word & low7) + low7) | word;
        count += 8 - std::popcount(nonZero & high);
    }
    return count + std::count(data, end, '\n');
}

// Collects the requested lines while the file streams past, and counts all of them.
struct PageCollector {
    qint64 offset = 0;
    qint64 limit = 0;
    QByteArray probe;
    QByteArray page;
    // Where each complete line of the page ends in `page`.
    QList<qsizetype> ends;
    qint64 newlines = 0;
    char lastByte = '\n';
    bool collecting = true;

    void consume(QByteArrayView block) {
        if (probe.size() < FileDigest::binaryProbeBytes)
            probe.append(
                block.first(qMin(block.size(), FileDigest::binaryProbeBytes - probe.size())));
        lastByte = block.back();
        const char* data = block.data();
        const char* const end = data + block.size();
        while (collecting && data < end) {
            const auto* newline =
                static_cast<const char*>(std::memchr(data, '\n', size_t(end - data)));
            const char* lineEnd = newline ? newline + 1 : end;
            if (newlines >= offset)
                page.append(data, lineEnd - data);
            data = lineEnd;
            if (newline) {
                if (++newlines > offset)
                    ends.append(page.size());
                // Raw bytes past the result limit could never be sent.
                if (ends.size() == limit || page.size() > ToolResult::maxBytes)
                    collecting = false;
            } else if (page.size() > 2 * ToolResult::maxBytes) {
                collecting = false;
            }
        }
        newlines += countNewlines(data, end);
    }
};

} // namespace

QString FileReader::read(const PathResolver& resolver, const ToolOperation::ReadFile& request,
                         const OperationCancellation& cancellation) {
    const PathResolver::Opened file = resolver.open(request.path);
    if (!S_ISREG(file.status.st_mode))
        throw WorkspaceFileError(WorkspaceFileError::Kind::notRegularFile);
    qint64 size = 0;
    PageCollector page{request.offset, request.limit};
    const QByteArray sha256 = FileDigest::ofFile(file.fd.get(), file.status.st_size, cancellation,
                                                 [&](QByteArrayView block) {
                                                     size += block.size();
                                                     page.consume(block);
                                                 });
    cancellation.check();

    QJsonObject base{
        {QStringLiteral("path"), request.path},
        {QStringLiteral("sha256"), QString::fromLatin1(sha256)},
        {QStringLiteral("size"), size},
        {QStringLiteral("untrusted"), true},
    };
    if (FileDigest::looksBinary(page.probe)) {
        base.insert(QStringLiteral("binary"), true);
        return ToolResult::success(base);
    }
    // A last line without a newline still counts, and ends the page if it was reached.
    qint64 lineCount = page.newlines;
    if (size > 0 && page.lastByte != '\n') {
        ++lineCount;
        if (page.collecting && lineCount > request.offset)
            page.ends.append(page.page.size());
    }
    const qsizetype available = page.ends.size();
    // The first line asked for does not fit any result on its own.
    if (available == 0 && request.offset < lineCount)
        return ToolResult::truncated();

    base.insert(QStringLiteral("offset"), request.offset);
    base.insert(QStringLiteral("line_count"), lineCount);
    return fitPage(available, [&](qsizetype taken) {
        QJsonObject object = base;
        const qsizetype end = taken == 0 ? 0 : page.ends[taken - 1];
        object.insert(QStringLiteral("content"), QString::fromUtf8(page.page.first(end)));
        if (request.offset + taken < lineCount)
            object.insert(QStringLiteral("next_offset"), request.offset + taken);
        return object;
    });
}

} // namespace kestrolan
