#include "platform/FreedesktopFileManager.h"

#include <gtest/gtest.h>
#include <QStringList>
#include <QUrl>

namespace {

const QString kService = "org.freedesktop.FileManager1";

// A session bus whose file manager runs, can be started by the bus, or is not there at all.
struct ScriptedBus {
    bool owned = false;
    bool activatable = false;
    bool sent = true;
    QStringList shown;
    QList<QUrl> opened;

    FreedesktopFileManager::Bus bus()
    {
        return {
            .isOwned = [this](const QString& service) { return owned && service == kService; },
            .isActivatable = [this](const QString& service) { return activatable && service == kService; },
            .showItems =
                [this](const QString& uri) {
                    if (sent)
                        shown << uri;
                    return sent;
                },
            .openFolder = [this](const QUrl& folder) { opened << folder; }};
    }
};

TEST(FreedesktopFileManagerTest, AsksAFileManagerThatRunsOrThatTheBusCanStartAndOpensTheFolderOtherwise)
{
    const QString item = "/tmp/backups/2026.11.23-10.00.00";
    const QString itemUri = "file:///tmp/backups/2026.11.23-10.00.00";
    for (const auto& [owned, activatable] : {std::pair{true, false}, {false, true}}) {
        ScriptedBus scripted;
        scripted.owned = owned;
        scripted.activatable = activatable;
        FreedesktopFileManager(scripted.bus()).selectFile(item);
        EXPECT_EQ(scripted.shown, QStringList({itemUri})) << "owned " << owned;
        EXPECT_TRUE(scripted.opened.isEmpty());
    }

    ScriptedBus neither;
    FreedesktopFileManager(neither.bus()).selectFile(item);
    EXPECT_TRUE(neither.shown.isEmpty());
    EXPECT_EQ(neither.opened, QList<QUrl>({QUrl::fromLocalFile("/tmp/backups")}));

    ScriptedBus unsent;
    unsent.activatable = true;
    unsent.sent = false;
    FreedesktopFileManager(unsent.bus()).selectFile(item);
    EXPECT_EQ(unsent.opened, QList<QUrl>({QUrl::fromLocalFile("/tmp/backups")})) << "a call not sent";
}

} // namespace
