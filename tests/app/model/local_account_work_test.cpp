#include "account/account_model.h"
#include "account/catalog_store.h"
#include "app_test_fixture.h"
#include "memory_local_key_store.h"
#include "model/application_model.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "scheduling/scheduling_model.h"
#include "service/api_client.h"
#include "storage/encrypted_local_storage.h"

#include <QDir>

using namespace kestrolan;
using namespace kestrolan::test;

// The app's own opener: with local keys and no opener, signing in opens the account's sealed
// stores under the data folder and attaches the scheduling screens to them; signing out
// detaches them, and signing in again finds what was saved.
TEST_F(AppModelTest, SignedInAccountsGetTheirSealedStoresAndTheScheduler) {
    const QString root = scratch.filePath(QStringLiteral("Kestrolan/Local"));
    const auto keys = std::make_shared<MemoryLocalKeyStore>();
    auto built = parts();
    built.openLocalAccount = nullptr;
    built.localKeys = keys;
    built.dataDirectory = root;
    model = std::make_unique<ApplicationModel>(std::move(built));
    QObject::connect(model.get(), &ApplicationModel::savedChatsChanged, model.get(),
                     [this] { ++historyLoads; });
    runTask(model->start());
    ApplicationModel& app = *model;
    signIn();
    runUntil([&] { return app.hasLocalData(); });

    TaskDraft draft = app.scheduling().newDraft(*app.catalog().selectedModelID());
    draft.name = QStringLiteral("Morning summary");
    draft.prompt = QStringLiteral("Summarise the news.");
    const auto refused = runTask(app.scheduling().save(draft, {}, app.catalog().models()));
    ASSERT_FALSE(refused) << refused->message().toStdString();
    ASSERT_EQ(app.scheduling().tasks().size(), 1);

    // Sealed on disk in this account's folder, and nothing in plain text.
    const LocalAccountContext context = LocalAccountContext::make(
        app.client().configuration().origin(), *app.account().account()->id);
    const QDir folder(EncryptedLocalStorage(root, context, keys).accountDirectory());
    const QStringList sealed =
        folder.entryList({u"*" + EncryptedLocalStorage::recordSuffix}, QDir::Files);
    EXPECT_FALSE(sealed.isEmpty());
    for (const QString& name : sealed) {
        QFile file(folder.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_FALSE(file.readAll().contains("Morning summary"));
    }

    runTask(app.signOut());
    runUntil([&] { return !app.hasLocalData(); });
    EXPECT_TRUE(app.scheduling().tasks().isEmpty());

    signIn();
    runUntil([&] { return app.hasLocalData() && app.scheduling().tasks().size() == 1; });
    EXPECT_EQ(app.scheduling().tasks().constFirst().name, u"Morning summary");
}
