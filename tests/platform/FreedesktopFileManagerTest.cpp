#include "platform/FreedesktopFileManager.h"

#include <gtest/gtest.h>
#include <QStringList>
#include <QUrl>
#include <tuple>

namespace {

const QString kService = "org.freedesktop.FileManager1";

// A session bus whose file manager runs, can be started by the bus, or is not there at all; a call to it
// may fail to be sent.
struct ScriptedBus {
    FreedesktopFileManager::Bus bus()
    {
        return {
            .isOwned = [this](const QString& service) { return owned && service == kService; },
            .isActivatable = [this](const QString& service) { return activatable && service == kService; },
            .showItems =
                [this](const QString& uri) {
                    asked << uri;
                    return sent;
                },
            .openFolder = [this](const QUrl& folder) { opened << folder; }};
    }

    bool owned = false;
    bool activatable = false;
    bool sent = true;
    QStringList asked;
    QList<QUrl> opened;
};

TEST(FreedesktopFileManagerTest, AsksAFileManagerThatRunsOrThatTheBusCanStartAndOpensTheFolderOtherwise)
{
    const QString item = "/tmp/backups/2026.11.23-10.00.00";
    const QList<QUrl> folder{QUrl::fromLocalFile("/tmp/backups")};
    for (const auto& [owned, activatable, sent] :
         {std::tuple{true, false, true}, {false, true, true}, {false, false, true}, {false, true, false}}) {
        SCOPED_TRACE(testing::Message()
                     << "owned " << owned << ", activatable " << activatable << ", sent " << sent);
        ScriptedBus scripted{
            .owned = owned, .activatable = activatable, .sent = sent, .asked = {}, .opened = {}};
        FreedesktopFileManager(scripted.bus()).selectFile(item);
        const bool there = owned || activatable;
        EXPECT_EQ(scripted.asked, there ? QStringList{"file://" + item} : QStringList());
        EXPECT_EQ(scripted.opened, there && sent ? QList<QUrl>() : folder);
    }
}

} // namespace
