#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "storage/local_account_data.h"
#include "storage/local_privacy_error.h"

#include <QDir>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

LocalAccountContext accountContext(const QString& accountID) {
    return LocalAccountContext::make(QUrl(u"https://example.com"_s), QUuid::fromString(accountID));
}

Project projectDraft(const QString& name) {
    Project project;
    project.name = name;
    return project;
}

template <class T>
std::optional<LocalPrivacyError::Kind> privacyFailure(QCoro::Task<T> task) {
    try {
        runTask(std::move(task));
    } catch (const LocalPrivacyError& error) {
        return error.kind();
    }
    return std::nullopt;
}

} // namespace

// Forgetting one account removes its sealed records and its key, leaves every other account as
// it was, and leaves no store of the forgotten account able to write into it again.
TEST(LocalAccountData, ForgettingRemovesOnlyThatAccountAndClosesEveryStore) {
    QTemporaryDir folder;
    const QString root = folder.filePath(u"Kestrolan/Local"_s);
    const auto keys = std::make_shared<MemoryLocalKeyStore>();
    const auto first = accountContext(u"3F2504E0-4F89-41D3-9A0C-0305E82C3301"_s);
    const auto second = accountContext(u"7C9E6679-7425-40DE-944B-E07FC1F90AE7"_s);

    LocalAccountData forgotten(first, keys, root);
    LocalAccountData kept(second, keys, root);
    runTask(forgotten.projects().create(projectDraft(u"Mine"_s)));
    const Project other = runTask(kept.projects().create(projectDraft(u"Theirs"_s)));
    runTask(forgotten.tasks().load());

    const QString forgottenFolder = EncryptedLocalStorage(root, first, keys).accountDirectory();
    ASSERT_TRUE(QDir(forgottenFolder).exists());
    ASSERT_TRUE(keys->hasKey(first));

    runTask(forgotten.forgetLocalData());

    EXPECT_FALSE(QDir(forgottenFolder).exists());
    EXPECT_FALSE(keys->hasKey(first));
    EXPECT_EQ(privacyFailure(forgotten.projects().list()), LocalPrivacyError::Kind::unavailable);
    EXPECT_EQ(privacyFailure(forgotten.agents().list()), LocalPrivacyError::Kind::unavailable);
    EXPECT_EQ(privacyFailure(forgotten.tasks().load()), LocalPrivacyError::Kind::unavailable);
    EXPECT_FALSE(QDir(forgottenFolder).exists());

    EXPECT_EQ(runTask(kept.projects().list()), QList<Project>{other});
    EXPECT_TRUE(keys->hasKey(second));
}

TEST(LocalAccountData, ClosingRefusesNewWorkAndKeepsTheRecords) {
    QTemporaryDir folder;
    const QString root = folder.filePath(u"Kestrolan/Local"_s);
    const auto keys = std::make_shared<MemoryLocalKeyStore>();
    const auto context = accountContext(u"3F2504E0-4F89-41D3-9A0C-0305E82C3301"_s);

    Project saved;
    {
        LocalAccountData data(context, keys, root);
        saved = runTask(data.projects().create(projectDraft(u"Kept"_s)));
        runTask(data.close());
        EXPECT_EQ(privacyFailure(data.projects().create(projectDraft(u"Late"_s))),
                  LocalPrivacyError::Kind::unavailable);
        EXPECT_EQ(privacyFailure(data.tasks().load()), LocalPrivacyError::Kind::unavailable);
    }
    LocalAccountData reopened(context, keys, root);
    EXPECT_EQ(runTask(reopened.projects().list()), QList<Project>{saved});
}
