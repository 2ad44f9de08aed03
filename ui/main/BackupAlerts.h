#pragma once

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

private:
    int runConfirmation(const char* messageKey, const char* informativeKey, bool withSuppression);
    void runNotice(const char* messageKey, const char* informativeKey);

    AlertPresenter& m_presenter;
    UserDefaults& m_defaults;
};
