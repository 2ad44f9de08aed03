#pragma once

#include <QString>

class AlertPresenter;

class UserDefaults;

// The main window's eight alerts: two confirmations that give back the answer (1000 for Yes, 1001 for
// No) and six notices with one button. Every alert has the warning style and runs application-modally;
// the first button answers to Return, a second one to Escape.
class BackupAlerts {
public:
    BackupAlerts(AlertPresenter& presenter, UserDefaults& defaults);

    // With a "don't ask again" box: ticked, it is remembered whatever button closed the alert.
    int runRemoveBackupConfirmationDlg();
    int runRestoreConfirmationDlg();
    void runBadHomeDirectoryAlert();
    void runNoBackupSelectedAlert();
    void runNotAvailableiCloudAlert(bool laterThanTenNine);
    void runNotEnoughDiskSpaceAlert(bool backingUp);
    void runBackupNotFoundAlert();
    // Deliberately unlike the others: no informative text, one button titled Cancel that answers to Return.
    void runiCloudDriveRequiredAlert();

    // A backup recorded without some items: how many, and each one's path and reason under Details.
    void runItemsNotCopiedAlert(int count, const QString& details);
    // A backup that could not be made: its folder and why.
    void runBackupNotMadeAlert(const QString& folder, const QString& reason);
    // A restore that left something undone: what, a line per kind, and the items under Details.
    void runRestoreIncompleteAlert(const QString& summary, const QString& details);
    // Deleting a backup left part of its folder: which item and why.
    void runBackupNotRemovedAlert(const QString& item, const QString& reason);
    // The preferences file could not be written: which file and why.
    void runPreferencesNotSavedAlert(const QString& file, const QString& reason);

private:
    int runConfirmation(const char* messageKey, const char* informativeKey, bool withSuppression);
    void runNotice(const char* messageKey, const char* informativeKey);
    void runNotice(const QString& message, const QString& informative, const QString& details = {});

    AlertPresenter& m_presenter;
    UserDefaults& m_defaults;
};
