#pragma once

#include "qstring_printer.h"
#include "tools/harness_error.h"
#include "tools/operation_cancellation.h"
#include "tools/tool_operation.h"
#include "workspace/workspace.h"
#include "workspace/workspace_file_error.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <chrono>
#include <gtest/gtest.h>

namespace kestrolan::test {

// A workspace over a fresh temporary folder, with helpers to lay out files and run operations.
class WorkspaceTest : public ::testing::Test {
protected:
    QString path(const QString& relative) const { return m_dir.filePath(relative); }

    void write(const QString& relative, const QByteArray& bytes) const {
        const QString full = path(relative);
        QDir().mkpath(QFileInfo(full).absolutePath());
        QFile file(full);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << full.toStdString();
        ASSERT_EQ(file.write(bytes), bytes.size());
    }
    void mkdir(const QString& relative) const { ASSERT_TRUE(QDir().mkpath(path(relative))); }
    void symlink(const QString& target, const QString& relative) const {
        ASSERT_EQ(::symlink(QFile::encodeName(target).constData(),
                            QFile::encodeName(path(relative)).constData()),
                  0);
    }
    QByteArray contents(const QString& relative) const {
        QFile file(path(relative));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

    std::shared_ptr<Workspace> open(ProtectedPaths protectedPaths = {}) const {
        return Workspace::open(QUrl::fromLocalFile(m_dir.path()), false, std::move(protectedPaths));
    }

    // Runs one operation with no deadline (a loaded machine must not turn it into a limit).
    static QString execute(const Workspace& workspace, ToolOperation::Payload payload) {
        const OperationCancellation cancellation(std::chrono::steady_clock::time_point::max());
        return workspace.execute(ToolOperation(std::move(payload)), cancellation);
    }
    static QJsonObject run(const Workspace& workspace, ToolOperation::Payload payload) {
        const QString text = execute(workspace, std::move(payload));
        QJsonParseError error{};
        const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << text.toStdString();
        return document.object();
    }

    // The kind of HarnessError the operation throws (a test fails when it throws nothing).
    static std::optional<HarnessError::Kind> harnessKind(const Workspace& workspace,
                                                         ToolOperation::Payload payload) {
        try {
            execute(workspace, std::move(payload));
        } catch (const HarnessError& error) {
            return error.kind();
        }
        return std::nullopt;
    }
    static std::optional<WorkspaceFileError::Kind> fileErrorKind(const Workspace& workspace,
                                                                 ToolOperation::Payload payload) {
        try {
            execute(workspace, std::move(payload));
        } catch (const WorkspaceFileError& error) {
            return error.kind();
        }
        return std::nullopt;
    }

    static QString sha256(const QByteArray& bytes) {
        return QString::fromLatin1(
            QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
    }

    static ToolOperation::ReadFile readFile(QString path, qint64 offset = 0,
                                            qint64 limit = ToolOperation::defaultLimit) {
        return {std::move(path), offset, limit};
    }

    QTemporaryDir m_dir;
};

} // namespace kestrolan::test
