#include "ui/main/BackupAlerts.h"

#include "support/MainWindowFixture.h"

namespace {

class BackupAlertsTest : public TestWorld {
protected:
    BackupAlertsTest()
        : TestWorld("de")
    {
    }

    BackupAlerts dialogs{alerts, defaults};
};

TEST_F(BackupAlertsTest, ConfirmationsAskYesOrNoAndOnlyTheRemoveOneRemembersATickedBox)
{
    alerts.answers = {AlertResponse{1000, true}, AlertResponse{1001, false}, AlertResponse{1001, true}};
    EXPECT_EQ(dialogs.runRestoreConfirmationDlg(), 1000);
    EXPECT_FALSE(alerts.shown.at(0).showsSuppressionButton);
    EXPECT_EQ(alerts.shown.at(0).messageText, text("alertRestoreWarningMessage"));
    EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(defaults)) << "the restore one stores nothing";

    EXPECT_EQ(dialogs.runRemoveBackupConfirmationDlg(), 1001);
    const Alert& alert = alerts.shown.at(1);
    ASSERT_EQ(alert.buttons.size(), 2);
    EXPECT_EQ(alert.buttons[0].title, "Ja");
    EXPECT_EQ(alert.buttons[0].keyEquivalent, "\r");
    EXPECT_EQ(alert.buttons[1].title, "Nein");
    EXPECT_EQ(alert.buttons[1].keyEquivalent, "\033");
    EXPECT_TRUE(alert.showsSuppressionButton);
    EXPECT_EQ(alert.suppressionButtonTitle, Localizer::dontAskAgainButtonTitle());
    EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(defaults));

    EXPECT_EQ(dialogs.runRemoveBackupConfirmationDlg(), 1001);
    EXPECT_TRUE(iCloudPrefs::dontAskAgainRemoveBackup(UserDefaults(UserDefaults::standardFilePath())))
        << "a ticked box is remembered whatever the answer";
}

} // namespace
