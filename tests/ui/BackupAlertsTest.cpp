#include "Helpers/Localizer.h"
#include "app/iCloudPrefs.h"
#include "platform/UserDefaults.h"
#include "support/ScriptedAlertPresenter.h"
#include "support/TestHome.h"
#include "ui/main/BackupAlerts.h"

#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

QString text(const char* key)
{
    return Localizer::localizedStringForKey(QString::fromLatin1(key));
}

class BackupAlertsTest : public ::testing::Test {
protected:
    BackupAlertsTest()
    {
        Localizer::Resources german;
        german.userLanguages = QStringList{"de"};
        Localizer::setResources(german);
        iCloudPrefs::registerDefaults(defaults);
    }
    ~BackupAlertsTest() override { Localizer::setResources(Localizer::Resources{}); }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    ScriptedAlertPresenter presenter;
    BackupAlerts alerts{presenter, defaults};
};

TEST_F(BackupAlertsTest, TheRemoveConfirmationAsksYesOrNoWithADontAskAgainBox)
{
    presenter.answers = {AlertResponse{1001, false}};
    EXPECT_EQ(alerts.runRemoveBackupConfirmationDlg(), 1001);
    const Alert& alert = presenter.shown.at(0);
    EXPECT_EQ(alert.style, Alert::Style::Warning);
    EXPECT_EQ(alert.messageText, text("alertDeleteBackupMessage"));
    EXPECT_EQ(alert.informativeText, text("alertConfirmInformativeText"));
    ASSERT_EQ(alert.buttons.size(), 2);
    EXPECT_EQ(alert.buttons[0].title, "Ja");
    EXPECT_EQ(alert.buttons[0].keyEquivalent, "\r");
    EXPECT_EQ(alert.buttons[1].title, "Nein");
    EXPECT_EQ(alert.buttons[1].keyEquivalent, "\033");
    EXPECT_TRUE(alert.showsSuppressionButton);
    EXPECT_EQ(alert.suppressionButtonTitle, Localizer::dontAskAgainButtonTitle());
    EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(defaults));
}

TEST_F(BackupAlertsTest, ATickedBoxIsRememberedWhateverTheAnswer)
{
    presenter.answers = {AlertResponse{1001, true}};
    EXPECT_EQ(alerts.runRemoveBackupConfirmationDlg(), 1001);
    EXPECT_TRUE(iCloudPrefs::dontAskAgainRemoveBackup(UserDefaults(UserDefaults::standardFilePath())));
}

TEST_F(BackupAlertsTest, TheRestoreConfirmationNeverStoresAnything)
{
    presenter.answers = {AlertResponse{1000, true}};
    EXPECT_EQ(alerts.runRestoreConfirmationDlg(), 1000);
    EXPECT_FALSE(presenter.shown.at(0).showsSuppressionButton);
    EXPECT_EQ(presenter.shown.at(0).messageText, text("alertRestoreWarningMessage"));
    EXPECT_FALSE(iCloudPrefs::dontAskAgainRemoveBackup(defaults));
}

TEST_F(BackupAlertsTest, NoticesHaveOneOkButtonAndTheTextsOfTheirCase)
{
    alerts.runNotEnoughDiskSpaceAlert(true);
    alerts.runNotEnoughDiskSpaceAlert(false);
    alerts.runNotAvailableiCloudAlert(false);
    alerts.runNotAvailableiCloudAlert(true);
    alerts.runBackupNotFoundAlert();
    alerts.runBadHomeDirectoryAlert();
    alerts.runNoBackupSelectedAlert();
    ASSERT_EQ(presenter.shown.size(), 7);
    EXPECT_EQ(presenter.shown[0].informativeText, text("alertNotEnoughDiskSpaceToBackUpInfo"));
    EXPECT_EQ(presenter.shown[1].informativeText, text("alertNotEnoughDiskSpaceToRestoreInfo"));
    EXPECT_EQ(presenter.shown[2].messageText, text("alertNotAvailableiCloudWarningMessage"));
    EXPECT_EQ(presenter.shown[3].messageText, text("alertNotAvailableiCloudInYosemiteWarningMessage"));
    EXPECT_EQ(presenter.shown[4].messageText, text("alertBackupNotFoundMessage"));
    EXPECT_EQ(presenter.shown[5].informativeText, text("alertBadDirectoryInformativeText"));
    EXPECT_EQ(presenter.shown[6].informativeText, text("alertNoBackupSelectedInformativeText"));
    for (const Alert& alert : presenter.shown) {
        ASSERT_EQ(alert.buttons.size(), 1);
        EXPECT_EQ(alert.buttons[0].title, Localizer::okButtonTitle());
        EXPECT_EQ(alert.buttons[0].keyEquivalent, "\r");
        EXPECT_FALSE(alert.informativeText.isEmpty());
        EXPECT_FALSE(alert.showsSuppressionButton);
    }
}

} // namespace
