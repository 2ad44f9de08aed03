<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message>
        <source>alertBackupNotFoundInformativeText</source>
        <translation>The backup folder may have been moved, renamed or deleted.</translation>
    </message>
    <message>
        <source>alertBackupNotFoundMessage</source>
        <translation>Backup not found</translation>
    </message>
    <message>
        <source>alertBackupNotMadeMessage</source>
        <translation>The backup could not be made</translation>
    </message>
    <message>
        <source>alertBackupNotRemovedMessage</source>
        <translation>The backup could not be removed completely</translation>
    </message>
    <message>
        <source>alertBadDirectoryInformativeText</source>
        <translation>Pelmora needs access to your home folder to find your iCloud folder. Start the backup again and choose your home folder.</translation>
    </message>
    <message>
        <source>alertBadDirectoryWarningMessage</source>
        <translation>Your home folder was not selected.</translation>
    </message>
    <message>
        <source>alertConfirmInformativeText</source>
        <translation>The backup folder and everything in it will be deleted permanently. This cannot be undone.</translation>
    </message>
    <message>
        <source>alertContinueInformativeText</source>
        <translation>The current contents of your iCloud folder will be replaced with the contents of the backup. Files that are not in the backup, or that have changed since it was made, will be removed. Do you want to continue?</translation>
    </message>
    <message>
        <source>alertDeleteBackupMessage</source>
        <translation>Are you sure you want to delete the selected backup?</translation>
    </message>
    <message>
        <source>alertItemsNotCopiedInfo</source>
        <translation>The backup was made without them. The list, with the reason for each item, is under Details and in the backup’s info window.</translation>
    </message>
    <message>
        <source>alertNoBackupSelectedInformativeText</source>
        <translation>Select the backup you want to restore in the list, then try again.</translation>
    </message>
    <message>
        <source>alertNoBackupSelectedWarningMessage</source>
        <translation>No backup selected</translation>
    </message>
    <message>
        <source>alertNotAvailableiCloudInYosemiteWarningMessage</source>
        <translation>Your iCloud folder could not be found. Make sure iCloud Drive is turned on.</translation>
    </message>
    <message>
        <source>alertNotAvailableiCloudInformativeText</source>
        <translation>Pelmora looks for it at “Library/Mobile Documents” in your home folder. Make sure you are signed in to iCloud and that this folder exists, then try again.</translation>
    </message>
    <message>
        <source>alertNotAvailableiCloudWarningMessage</source>
        <translation>Your iCloud folder could not be found.</translation>
    </message>
    <message>
        <source>alertNotEnoughDiskSpaceToBackUpInfo</source>
        <translation>The disk that holds your backups does not have enough free space for this backup. Free up some space or delete older backups, then try again.</translation>
    </message>
    <message>
        <source>alertNotEnoughDiskSpaceToRestoreInfo</source>
        <translation>The disk that holds your iCloud folder does not have enough free space to restore this backup. Free up some space, then restore the backup again.</translation>
    </message>
    <message>
        <source>alertNotEnoughDiskSpaceWarningMessage</source>
        <translation>Not enough disk space</translation>
    </message>
    <message>
        <source>alertOneItemNotCopiedMessage</source>
        <translation>1 item could not be copied</translation>
    </message>
    <message>
        <source>alertPreferencesNotSavedInfo</source>
        <translation>Your backups stay listed until Pelmora quits, and the whole list is saved the next time the file can be written.</translation>
    </message>
    <message>
        <source>alertPreferencesNotSavedMessage</source>
        <translation>Pelmora could not save its settings</translation>
    </message>
    <message>
        <source>alertRestoreDiskFullInfo</source>
        <translation>The disk became full, so the restore stopped.</translation>
    </message>
    <message>
        <source>alertRestoreIncompleteInfo</source>
        <translation>The items are listed under Details.</translation>
    </message>
    <message>
        <source>alertRestoreIncompleteMessage</source>
        <translation>The restore could not do everything</translation>
    </message>
    <message>
        <source>alertRestoreWarningMessage</source>
        <translation>Restore your iCloud folder from the selected backup?</translation>
    </message>
    <message>
        <source>alertiCloudDriveRequiredMessage</source>
        <translation>iCloud Drive is required, but its folder (“com~apple~CloudDocs”) was not found in your iCloud folder. Turn on iCloud Drive, wait until it has finished setting up, then try again.</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingBackedUpInfo</source>
        <translation>If you quit now, the backup is stopped and the unfinished backup is deleted.</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingBackedUpMsg</source>
        <translation>A backup is in progress. Do you want to quit anyway?</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingRestoredInfo</source>
        <translation>If you quit now, the restore is stopped and your iCloud folder is left only partly restored.</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingRestoredMsg</source>
        <translation>A restore is in progress. Do you want to quit anyway?</translation>
    </message>
    <message>
        <source>btnTitleBackUp</source>
        <translation>&amp;Back Up</translation>
    </message>
    <message>
        <source>btnTitleBackUpNow</source>
        <translation>&amp;Back Up Now</translation>
    </message>
    <message>
        <source>btnTitleCompareWithiCloud</source>
        <translation>&amp;Compare with iCloud Folder…</translation>
    </message>
    <message>
        <source>btnTitleDelete</source>
        <translation>&amp;Delete</translation>
    </message>
    <message>
        <source>btnTitleRestore</source>
        <translation>&amp;Restore</translation>
    </message>
    <message>
        <source>button_cancel</source>
        <translation>&amp;Cancel</translation>
    </message>
    <message>
        <source>button_dont_ask</source>
        <translation>Don't ask again</translation>
    </message>
    <message>
        <source>button_no</source>
        <translation>No</translation>
    </message>
    <message>
        <source>button_ok</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>button_yes</source>
        <translation>Yes</translation>
    </message>
    <message>
        <source>contextMenuItemTitleGetInfo</source>
        <translation>&amp;Get Info</translation>
    </message>
    <message>
        <source>formatStringBackupSpace</source>
        <translation>On disk: %1 on its own, %2 freed by deleting it</translation>
    </message>
    <message>
        <source>formatStringBackupSpacePartial</source>
        <translation>On disk: at least %1 on its own, %2 freed by deleting it (some items could not be read)</translation>
    </message>
    <message>
        <source>formatStringBackupContent</source>
        <translation>App folders: %1, files in total: %2</translation>
    </message>
    <message>
        <source>formatStringBackupNotRemovedInfo</source>
        <translation>“%1” could not be removed: %2. The backup stays listed.</translation>
    </message>
    <message>
        <source>formatStringCloseApps</source>
        <translation>The applications listed below use iCloud. Quit them, then click “%1”.</translation>
    </message>
    <message>
        <source>formatStringCompareAdded</source>
        <translation>Added since the backup: %1, %2. A restore would move them to the Trash.</translation>
    </message>
    <message>
        <source>formatStringCompareChanged</source>
        <translation>Changed since the backup: %1, %2. A restore would put the backup’s version back.</translation>
    </message>
    <message>
        <source>formatStringCompareRemoved</source>
        <translation>Removed since the backup: %1, %2. A restore would copy them back.</translation>
    </message>
    <message>
        <source>formatStringCompareWindowTitle</source>
        <translation>Backup of %1 Compared with the iCloud Folder</translation>
    </message>
    <message>
        <source>formatStringCopyProgress</source>
        <translation>%1 of %2 files · %3 of %4</translation>
    </message>
    <message>
        <source>formatStringItemNotWritten</source>
        <translation>“%1” could not be written: %2.</translation>
    </message>
    <message>
        <source>formatStringItems</source>
        <translation>%1 items</translation>
    </message>
    <message>
        <source>formatStringItemsNotCopied</source>
        <translation>%1 items were not copied:</translation>
    </message>
    <message>
        <source>formatStringItemsNotCopiedMessage</source>
        <translation>%1 items could not be copied</translation>
    </message>
    <message>
        <source>formatStringRestoreKept</source>
        <translation>%1 items were kept because the backup could not be checked for them.</translation>
    </message>
    <message>
        <source>formatStringRestoreNotCopied</source>
        <translation>%1 items could not be copied back.</translation>
    </message>
    <message>
        <source>formatStringRestoreNotRemoved</source>
        <translation>%1 items that the backup does not hold could not be moved to the Trash.</translation>
    </message>
    <message>
        <source>formatStringRestoreRemovedForGood</source>
        <translation>%1 items were removed for good: no Trash could be used on their volume.</translation>
    </message>
    <message>
        <source>labelAllYourBackups</source>
        <translation>All your backups</translation>
    </message>
    <message>
        <source>labelMeasuringBackupSpace</source>
        <translation>Measuring the space on disk…</translation>
    </message>
    <message>
        <source>labelBackupContent</source>
        <translation>Backup contents</translation>
    </message>
    <message>
        <source>labelCompareBackupUnreadable</source>
        <translation>The backup could not be read, so nothing was compared.</translation>
    </message>
    <message>
        <source>labelCompareDone</source>
        <translation>What restoring this backup would do to your iCloud folder now:</translation>
    </message>
    <message>
        <source>labelCompareNoDifferences</source>
        <translation>Your iCloud folder holds the same items as the backup: a restore would change nothing.</translation>
    </message>
    <message>
        <source>labelComparing</source>
        <translation>Comparing the backup with your iCloud folder…</translation>
    </message>
    <message>
        <source>labelCurrentlyIniCloud</source>
        <translation>Currently in iCloud</translation>
    </message>
    <message>
        <source>labelLastBackup</source>
        <translation>Last backup</translation>
    </message>
    <message>
        <source>labelLastBackupDateNever</source>
        <translation>Never</translation>
    </message>
    <message>
        <source>labelOneItem</source>
        <translation>1 item</translation>
    </message>
    <message>
        <source>labelOneItemNotCopied</source>
        <translation>1 item was not copied:</translation>
    </message>
    <message>
        <source>menuItemTitleBackup</source>
        <translation>Backup of %1</translation>
    </message>
    <message>
        <source>openPanelTitle</source>
        <translation>Choose Your Home Folder</translation>
    </message>
    <message>
        <source>operationCanceling</source>
        <translation>Canceling…</translation>
    </message>
    <message>
        <source>operationCopyingDataFromiCloud</source>
        <translation>Copying data from iCloud…</translation>
    </message>
    <message>
        <source>operationPreparingToCopyItems</source>
        <translation>Preparing to copy items…</translation>
    </message>
    <message>
        <source>operationRestoringDataToiCloud</source>
        <translation>Restoring data to iCloud…</translation>
    </message>
    <message>
        <source>placeholderBackupTable</source>
        <translation>No backups yet. Click “Back Up” to make your first backup.</translation>
    </message>
    <message>
        <source>tableColumnTitleApplication</source>
        <translation>Application</translation>
    </message>
    <message>
        <source>tableColumnTitleDate</source>
        <translation>Date</translation>
    </message>
    <message>
        <source>tableColumnTitleItem</source>
        <translation>Item</translation>
    </message>
    <message>
        <source>tableColumnTitleSize</source>
        <translation>Size</translation>
    </message>
    <message>
        <source>titleShowInFinder</source>
        <translation>&amp;Show in File Manager</translation>
    </message>
    <message>
        <source>windowTitleBackupInfo</source>
        <translation>Backup Info</translation>
    </message>
    <message>
        <source>windowTitleCloseAppsBeforeBackUp</source>
        <translation>Quit Applications Before Backing Up</translation>
    </message>
    <message>
        <source>windowTitleCloseAppsBeforeRestore</source>
        <translation>Quit Applications Before Restoring</translation>
    </message>
    <message>
        <source>windowTitleOperationBackUp</source>
        <translation>Backing Up iCloud</translation>
    </message>
    <message>
        <source>windowTitleOperationRestore</source>
        <translation>Restoring iCloud</translation>
    </message>
</context>
<context>
    <name>MainMenu</name>
    <message>
        <source>MainMenu_File</source>
        <translation>&amp;File</translation>
    </message>
    <message>
        <source>MainMenu_File_Ask Before Deleting Backups</source>
        <translation>&amp;Ask Before Deleting Backups</translation>
    </message>
    <message>
        <source>MainMenu_File_Back Up Now</source>
        <translation>&amp;Back Up Now</translation>
    </message>
    <message>
        <source>MainMenu_File_Close Window</source>
        <translation>&amp;Close Window</translation>
    </message>
    <message>
        <source>MainMenu_File_Delete Backup</source>
        <translation>&amp;Delete Backup</translation>
    </message>
    <message>
        <source>MainMenu_File_Get Info</source>
        <translation>Get &amp;Info</translation>
    </message>
    <message>
        <source>MainMenu_File_Restore from Backup</source>
        <translation>&amp;Restore from Backup</translation>
    </message>
    <message>
        <source>MainMenu_File_Show in File Manager</source>
        <translation>&amp;Show in File Manager</translation>
    </message>
    <message>
        <source>MainMenu_Help</source>
        <translation>&amp;Help</translation>
    </message>
    <message>
        <source>MainMenu_Help_Pelmora Home Page</source>
        <translation>Pelmora &amp;Home Page</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora</source>
        <translation>&amp;Pelmora</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora_About Pelmora</source>
        <translation>&amp;About Pelmora</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora_Pelmora Home Page</source>
        <translation>Pelmora &amp;Home Page</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora_Quit Pelmora</source>
        <translation>&amp;Quit Pelmora</translation>
    </message>
    <message>
        <source>MainMenu_Window</source>
        <translation>&amp;Window</translation>
    </message>
    <message>
        <source>MainMenu_Window_Main Window</source>
        <translation>&amp;Main Window</translation>
    </message>
    <message>
        <source>MainMenu_Window_Minimize</source>
        <translation>Mi&amp;nimize</translation>
    </message>
</context>
</TS>
