#include "BackupAlerts.h"

#include "platform/AlertPresenter.h"
#include "platform/Localizer.h"
#include "store/iCloudPrefs.h"

#include <QLocale>

namespace {

const QString kReturn = QStringLiteral("\r");
const QString kEscape = QStringLiteral("\033");

QString text(const char* key)
{
    return key ? Localizer::localizedStringForKey(QString::fromLatin1(key)) : QString();
}

} // namespace

BackupAlerts::BackupAlerts(AlertPresenter& presenter, UserDefaults& defaults)
    : m_presenter(presenter)
    , m_defaults(defaults)
{
}

int BackupAlerts::runConfirmation(const char* messageKey, const char* informativeKey, bool withSuppression)
{
    Alert alert;
    alert.buttons = {{Localizer::yesButtonTitle(), kReturn}, {Localizer::noButtonTitle(), kEscape}};
    alert.showsSuppressionButton = withSuppression;
    if (withSuppression)
        alert.suppressionButtonTitle = Localizer::dontAskAgainButtonTitle();
    alert.messageText = text(messageKey);
    alert.informativeText = text(informativeKey);
    const AlertResponse response = m_presenter.runModal(alert);
    // Remembered whatever button closed the alert: deleting reads it again after a No.
    if (withSuppression && response.suppressionChecked)
        iCloudPrefs::setDontAskAgainRemoveBackup(m_defaults, true);
    return response.code;
}

void BackupAlerts::runNotice(const char* messageKey, const char* informativeKey)
{
    runNotice(text(messageKey), text(informativeKey));
}

void BackupAlerts::runNotice(const QString& message, const QString& informative, const QString& details)
{
    Alert alert;
    alert.buttons = {{Localizer::okButtonTitle(), kReturn}};
    alert.messageText = message;
    alert.informativeText = informative;
    alert.detailedText = details;
    m_presenter.runModal(alert);
}

int BackupAlerts::runRemoveBackupConfirmationDlg()
{
    return runConfirmation("alertDeleteBackupMessage", "alertConfirmInformativeText", true);
}

int BackupAlerts::runRestoreConfirmationDlg()
{
    return runConfirmation("alertRestoreWarningMessage", "alertContinueInformativeText", false);
}

void BackupAlerts::runBadHomeDirectoryAlert()
{
    runNotice("alertBadDirectoryWarningMessage", "alertBadDirectoryInformativeText");
}

void BackupAlerts::runNoBackupSelectedAlert()
{
    runNotice("alertNoBackupSelectedWarningMessage", "alertNoBackupSelectedInformativeText");
}

void BackupAlerts::runNotAvailableiCloudAlert(bool laterThanTenNine)
{
    runNotice(laterThanTenNine ? "alertNotAvailableiCloudInYosemiteWarningMessage"
                               : "alertNotAvailableiCloudWarningMessage",
              "alertNotAvailableiCloudInformativeText");
}

void BackupAlerts::runNotEnoughDiskSpaceAlert(bool backingUp)
{
    runNotice("alertNotEnoughDiskSpaceWarningMessage",
              backingUp ? "alertNotEnoughDiskSpaceToBackUpInfo" : "alertNotEnoughDiskSpaceToRestoreInfo");
}

void BackupAlerts::runBackupNotFoundAlert()
{
    runNotice("alertBackupNotFoundMessage", "alertBackupNotFoundInformativeText");
}

void BackupAlerts::runiCloudDriveRequiredAlert()
{
    Alert alert;
    alert.buttons = {{Localizer::cancelButtonTitle(), kReturn}};
    alert.messageText = text("alertiCloudDriveRequiredMessage");
    m_presenter.runModal(alert);
}

void BackupAlerts::runItemsNotCopiedAlert(int count, const QString& details)
{
    const QString message = count == 1
                                ? text("alertOneItemNotCopiedMessage")
                                : text("formatStringItemsNotCopiedMessage").arg(QLocale().toString(count));
    runNotice(message, text("alertItemsNotCopiedInfo"), details);
}

void BackupAlerts::runBackupNotMadeAlert(const QString& folder, const QString& reason)
{
    runNotice(text("alertBackupNotMadeMessage"), text("formatStringItemNotWritten").arg(folder, reason));
}

void BackupAlerts::runPreferencesNotSavedAlert(const QString& file, const QString& reason)
{
    runNotice(text("alertPreferencesNotSavedMessage"), text("formatStringItemNotWritten").arg(file, reason) +
                                                           QStringLiteral("\n\n") +
                                                           text("alertPreferencesNotSavedInfo"));
}

void BackupAlerts::runBackupNotRemovedAlert(const QString& item, const QString& reason)
{
    runNotice(text("alertBackupNotRemovedMessage"),
              text("formatStringBackupNotRemovedInfo").arg(item, reason));
}

void BackupAlerts::runRestoreIncompleteAlert(const QString& summary, const QString& details)
{
    runNotice(text("alertRestoreIncompleteMessage"), summary, details);
}
