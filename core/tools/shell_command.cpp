#include "tools/shell_command.h"

#include "tools/harness_error.h"

#include <QDir>
#include <QFile>
#include <QUuid>
#include <cerrno>
#include <filesystem>
#include <kr_command.h>
#include <sys/stat.h>

namespace kestrolan {

namespace {

// $TMPDIR, else /tmp. Unlike QDir::tempPath(), a missing directory stays missing instead of
// turning into an empty path, which would put the folder at the root.
QDir userTemporaryDirectory() {
    const QString configured = qEnvironmentVariable("TMPDIR");
    return QDir(configured.isEmpty() ? QStringLiteral("/tmp") : configured);
}

// The command's TMPDIR: made owner-only before the command starts, removed with whatever the
// command left in it (a symbolic link put in its place is removed, not followed).
class ScratchFolder {
public:
    ScratchFolder()
        : m_path(userTemporaryDirectory().absoluteFilePath(
              u".kr-scratch-" + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()))
        , m_native(QFile::encodeName(m_path)) {
        if (::mkdir(m_native.constData(), 0700) != 0)
            fail(errno);
        // The umask may have taken bits away that the command needs.
        if (::chmod(m_native.constData(), 0700) != 0) {
            const int error = errno;
            ::rmdir(m_native.constData());
            fail(error);
        }
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(m_native.toStdString()), ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const QByteArray& native() const { return m_native; }

private:
    [[noreturn]] void fail(int error) const {
        throw Error(QStringLiteral("The folder “%1” could not be created: %2")
                        .arg(m_path, qt_error_string(error)));
    }

    QString m_path;
    QByteArray m_native;
};

} // namespace

ShellCommand::ShellCommand()
    : m_handle(kr_command_create()) {}

ShellCommand::~ShellCommand() {
    const std::lock_guard lock(m_lock);
    kr_command_destroy(m_handle);
    m_handle = nullptr;
}

bool ShellCommand::hasHandle() const {
    const std::lock_guard lock(m_lock);
    return m_handle != nullptr;
}

void ShellCommand::cancel() {
    const std::lock_guard lock(m_lock);
    if (m_handle)
        kr_command_cancel(m_handle);
}

ShellOutcome ShellCommand::runOutcome(const QString& command, const QUrl& cwd,
                                      quint32 timeoutMilliseconds,
                                      const std::optional<QString>& profile) {
    kr_command* handle = nullptr;
    {
        const std::lock_guard lock(m_lock);
        handle = m_handle;
    }
    if (!handle)
        throw HarnessError(HarnessError::Kind::accessDenied);

    const ScratchFolder scratch;
    QByteArray buffer(outputCapacity, '\0');
    const QByteArray commandBytes = command.toUtf8();
    const QByteArray cwdBytes = QFile::encodeName(cwd.toLocalFile());
    const QByteArray profileBytes = profile ? profile->toUtf8() : QByteArray();
    size_t length = 0;
    int32_t exitStatus = -1;
    bool truncated = false;
    bool timedOut = false;
    // The handle outlives the run: only the destructor frees it, and it cannot run meanwhile.
    const int result = kr_command_run(
        handle, commandBytes.constData(), cwdBytes.constData(), scratch.native().constData(),
        profile ? profileBytes.constData() : nullptr, timeoutMilliseconds, buffer.data(),
        static_cast<size_t>(buffer.size()), &length, &exitStatus, &truncated, &timedOut);
    if (result != 0) {
        throw HarnessError(exitStatus == -1 ? HarnessError::Kind::accessDenied
                                            : HarnessError::Kind::interruptedMutation);
    }
    return ShellOutcome::fromRun(QByteArrayView(buffer.constData(), static_cast<qsizetype>(length)),
                                 exitStatus, truncated, timedOut);
}

} // namespace kestrolan
