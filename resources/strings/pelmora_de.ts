<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message>
        <source>alertBackupNotFoundInformativeText</source>
        <translation>Der Sicherungsordner wurde möglicherweise verschoben, umbenannt oder gelöscht.</translation>
    </message>
    <message>
        <source>alertBackupNotFoundMessage</source>
        <translation>Sicherung nicht gefunden</translation>
    </message>
    <message>
        <source>alertBackupNotMadeMessage</source>
        <translation>Die Sicherung konnte nicht angelegt werden</translation>
    </message>
    <message>
        <source>alertBackupNotRemovedMessage</source>
        <translation>Die Sicherung konnte nicht vollständig entfernt werden</translation>
    </message>
    <message>
        <source>alertBadDirectoryInformativeText</source>
        <translation>Pelmora benötigt Zugriff auf Ihren persönlichen Ordner, um Ihren iCloud-Ordner zu finden. Starten Sie die Sicherung erneut und wählen Sie Ihren persönlichen Ordner aus.</translation>
    </message>
    <message>
        <source>alertBadDirectoryWarningMessage</source>
        <translation>Ihr persönlicher Ordner wurde nicht ausgewählt.</translation>
    </message>
    <message>
        <source>alertConfirmInformativeText</source>
        <translation>Der Sicherungsordner wird mit seinem gesamten Inhalt endgültig gelöscht. Dieser Vorgang kann nicht rückgängig gemacht werden.</translation>
    </message>
    <message>
        <source>alertContinueInformativeText</source>
        <translation>Der aktuelle Inhalt Ihres iCloud-Ordners wird durch den Inhalt der Sicherung ersetzt. Dateien, die nicht in der Sicherung enthalten sind oder sich seit ihrer Erstellung geändert haben, werden entfernt. Möchten Sie fortfahren?</translation>
    </message>
    <message>
        <source>alertDeleteBackupMessage</source>
        <translation>Möchten Sie die ausgewählte Sicherung wirklich löschen?</translation>
    </message>
    <message>
        <source>alertItemsNotCopiedInfo</source>
        <translation>Die Sicherung wurde ohne sie angelegt. Die Liste mit dem Grund für jedes Objekt steht unter „Details“ und im Informationsfenster der Sicherung.</translation>
    </message>
    <message>
        <source>alertNoBackupSelectedInformativeText</source>
        <translation>Wählen Sie in der Liste die Sicherung aus, die Sie wiederherstellen möchten, und versuchen Sie es dann erneut.</translation>
    </message>
    <message>
        <source>alertNoBackupSelectedWarningMessage</source>
        <translation>Keine Sicherung ausgewählt</translation>
    </message>
    <message>
        <source>alertNotAvailableiCloudInYosemiteWarningMessage</source>
        <translation>Ihr iCloud-Ordner wurde nicht gefunden. Stellen Sie sicher, dass iCloud Drive aktiviert ist.</translation>
    </message>
    <message>
        <source>alertNotAvailableiCloudInformativeText</source>
        <translation>Pelmora sucht ihn unter „Library/Mobile Documents“ in Ihrem persönlichen Ordner. Stellen Sie sicher, dass Sie bei iCloud angemeldet sind und dieser Ordner vorhanden ist, und versuchen Sie es dann erneut.</translation>
    </message>
    <message>
        <source>alertNotAvailableiCloudWarningMessage</source>
        <translation>Ihr iCloud-Ordner wurde nicht gefunden.</translation>
    </message>
    <message>
        <source>alertNotEnoughDiskSpaceToBackUpInfo</source>
        <translation>Auf dem Datenträger mit Ihren Sicherungen ist nicht genügend freier Speicherplatz für diese Sicherung vorhanden. Geben Sie Speicherplatz frei oder löschen Sie ältere Sicherungen und versuchen Sie es dann erneut.</translation>
    </message>
    <message>
        <source>alertNotEnoughDiskSpaceToRestoreInfo</source>
        <translation>Auf dem Datenträger mit Ihrem iCloud-Ordner ist nicht genügend freier Speicherplatz vorhanden, um diese Sicherung wiederherzustellen. Geben Sie Speicherplatz frei und stellen Sie die Sicherung dann erneut wieder her.</translation>
    </message>
    <message>
        <source>alertNotEnoughDiskSpaceWarningMessage</source>
        <translation>Nicht genügend Speicherplatz</translation>
    </message>
    <message>
        <source>alertOneItemNotCopiedMessage</source>
        <translation>1 Objekt konnte nicht kopiert werden</translation>
    </message>
    <message>
        <source>alertPreferencesNotSavedInfo</source>
        <translation>Ihre Sicherungen bleiben aufgelistet, bis Pelmora beendet wird, und die ganze Liste wird gespeichert, sobald die Datei wieder geschrieben werden kann.</translation>
    </message>
    <message>
        <source>alertPreferencesNotSavedMessage</source>
        <translation>Pelmora konnte seine Einstellungen nicht speichern</translation>
    </message>
    <message>
        <source>alertRestoreDiskFullInfo</source>
        <translation>Der Datenträger wurde voll, deshalb wurde die Wiederherstellung angehalten.</translation>
    </message>
    <message>
        <source>alertRestoreIncompleteInfo</source>
        <translation>Die Objekte stehen unter „Details“.</translation>
    </message>
    <message>
        <source>alertRestoreIncompleteMessage</source>
        <translation>Die Wiederherstellung konnte nicht alles erledigen</translation>
    </message>
    <message>
        <source>alertRestoreWarningMessage</source>
        <translation>Möchten Sie Ihren iCloud-Ordner aus der ausgewählten Sicherung wiederherstellen?</translation>
    </message>
    <message>
        <source>alertiCloudDriveRequiredMessage</source>
        <translation>iCloud Drive ist erforderlich, sein Ordner („com~apple~CloudDocs“) wurde in Ihrem iCloud-Ordner jedoch nicht gefunden. Aktivieren Sie iCloud Drive, warten Sie, bis die Einrichtung abgeschlossen ist, und versuchen Sie es dann erneut.</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingBackedUpInfo</source>
        <translation>Wenn Sie Pelmora jetzt beenden, wird die Sicherung abgebrochen und die unvollständige Sicherung gelöscht.</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingBackedUpMsg</source>
        <translation>Eine Sicherung wird gerade erstellt. Möchten Sie Pelmora trotzdem beenden?</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingRestoredInfo</source>
        <translation>Wenn Sie Pelmora jetzt beenden, wird die Wiederherstellung abgebrochen und Ihr iCloud-Ordner bleibt nur teilweise wiederhergestellt.</translation>
    </message>
    <message>
        <source>alertiCloudIsBeingRestoredMsg</source>
        <translation>Eine Wiederherstellung läuft gerade. Möchten Sie Pelmora trotzdem beenden?</translation>
    </message>
    <message>
        <source>btnTitleBackUp</source>
        <translation>&amp;Sichern</translation>
    </message>
    <message>
        <source>btnTitleBackUpNow</source>
        <translation>&amp;Jetzt sichern</translation>
    </message>
    <message>
        <source>btnTitleCompareWithiCloud</source>
        <translation>Mit iCloud-Ordner &amp;vergleichen …</translation>
    </message>
    <message>
        <source>btnTitleDelete</source>
        <translation>&amp;Löschen</translation>
    </message>
    <message>
        <source>btnTitleRestore</source>
        <translation>&amp;Wiederherstellen</translation>
    </message>
    <message>
        <source>button_cancel</source>
        <translation>&amp;Abbrechen</translation>
    </message>
    <message>
        <source>button_dont_ask</source>
        <translation>Nicht mehr fragen</translation>
    </message>
    <message>
        <source>button_no</source>
        <translation>Nein</translation>
    </message>
    <message>
        <source>button_ok</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>button_yes</source>
        <translation>Ja</translation>
    </message>
    <message>
        <source>contextMenuItemTitleGetInfo</source>
        <translation>&amp;Informationen anzeigen</translation>
    </message>
    <message>
        <source>formatStringBackupSpace</source>
        <translation>Auf dem Datenträger: %1 für sich allein, beim Löschen werden %2 frei</translation>
    </message>
    <message>
        <source>formatStringBackupSpacePartial</source>
        <translation>Auf dem Datenträger: mindestens %1 für sich allein, beim Löschen werden %2 frei (nicht alles war lesbar)</translation>
    </message>
    <message>
        <source>formatStringBackupContent</source>
        <translation>App-Ordner: %1, Dateien insgesamt: %2</translation>
    </message>
    <message>
        <source>formatStringBackupNotRemovedInfo</source>
        <translation>„%1“ konnte nicht entfernt werden: %2. Die Sicherung bleibt aufgelistet.</translation>
    </message>
    <message>
        <source>formatStringCloseApps</source>
        <translation>Die unten aufgeführten Programme verwenden iCloud. Beenden Sie sie und klicken Sie dann auf „%1“.</translation>
    </message>
    <message>
        <source>formatStringCompareAdded</source>
        <translation>Seit der Sicherung hinzugekommen: %1, %2. Eine Wiederherstellung würde sie in den Papierkorb legen.</translation>
    </message>
    <message>
        <source>formatStringCompareChanged</source>
        <translation>Seit der Sicherung geändert: %1, %2. Eine Wiederherstellung würde die Fassung aus der Sicherung zurücklegen.</translation>
    </message>
    <message>
        <source>formatStringCompareRemoved</source>
        <translation>Seit der Sicherung entfernt: %1, %2. Eine Wiederherstellung würde sie zurückkopieren.</translation>
    </message>
    <message>
        <source>formatStringCompareWindowTitle</source>
        <translation>Sicherung vom %1 im Vergleich mit dem iCloud-Ordner</translation>
    </message>
    <message>
        <source>formatStringCopyProgress</source>
        <translation>%1 von %2 Dateien · %3 von %4</translation>
    </message>
    <message>
        <source>formatStringItemNotWritten</source>
        <translation>„%1“ konnte nicht geschrieben werden: %2.</translation>
    </message>
    <message>
        <source>formatStringItems</source>
        <translation>%1 Objekte</translation>
    </message>
    <message>
        <source>formatStringItemsNotCopied</source>
        <translation>%1 Objekte wurden nicht kopiert:</translation>
    </message>
    <message>
        <source>formatStringItemsNotCopiedMessage</source>
        <translation>%1 Objekte konnten nicht kopiert werden</translation>
    </message>
    <message>
        <source>formatStringRestoreKept</source>
        <translation>%1 Objekte wurden behalten, weil die Sicherung für sie nicht geprüft werden konnte.</translation>
    </message>
    <message>
        <source>formatStringRestoreNotCopied</source>
        <translation>%1 Objekte konnten nicht zurückkopiert werden.</translation>
    </message>
    <message>
        <source>formatStringRestoreNotRemoved</source>
        <translation>%1 Objekte, die die Sicherung nicht enthält, konnten nicht in den Papierkorb verschoben werden.</translation>
    </message>
    <message>
        <source>formatStringRestoreRemovedForGood</source>
        <translation>%1 Objekte wurden endgültig entfernt: Auf ihrem Datenträger ließ sich kein Papierkorb verwenden.</translation>
    </message>
    <message>
        <source>labelAllYourBackups</source>
        <translation>Alle Ihre Sicherungen</translation>
    </message>
    <message>
        <source>labelMeasuringBackupSpace</source>
        <translation>Der Platz auf dem Datenträger wird gemessen …</translation>
    </message>
    <message>
        <source>labelBackupContent</source>
        <translation>Inhalt der Sicherung</translation>
    </message>
    <message>
        <source>labelCompareBackupUnreadable</source>
        <translation>Die Sicherung konnte nicht gelesen werden, daher wurde nichts verglichen.</translation>
    </message>
    <message>
        <source>labelCompareDone</source>
        <translation>Was eine Wiederherstellung dieser Sicherung jetzt an Ihrem iCloud-Ordner ändern würde:</translation>
    </message>
    <message>
        <source>labelCompareNoDifferences</source>
        <translation>Ihr iCloud-Ordner enthält dieselben Objekte wie die Sicherung: Eine Wiederherstellung würde nichts ändern.</translation>
    </message>
    <message>
        <source>labelComparing</source>
        <translation>Die Sicherung wird mit Ihrem iCloud-Ordner verglichen …</translation>
    </message>
    <message>
        <source>labelCurrentlyIniCloud</source>
        <translation>Derzeit in iCloud</translation>
    </message>
    <message>
        <source>labelLastBackup</source>
        <translation>Letzte Sicherung</translation>
    </message>
    <message>
        <source>labelLastBackupDateNever</source>
        <translation>Nie</translation>
    </message>
    <message>
        <source>labelOneItem</source>
        <translation>1 Objekt</translation>
    </message>
    <message>
        <source>labelOneItemNotCopied</source>
        <translation>1 Objekt wurde nicht kopiert:</translation>
    </message>
    <message>
        <source>menuItemTitleBackup</source>
        <translation>Sicherung vom %1</translation>
    </message>
    <message>
        <source>openPanelTitle</source>
        <translation>Persönlichen Ordner auswählen</translation>
    </message>
    <message>
        <source>operationCanceling</source>
        <translation>Wird abgebrochen…</translation>
    </message>
    <message>
        <source>operationCopyingDataFromiCloud</source>
        <translation>Daten werden aus iCloud kopiert…</translation>
    </message>
    <message>
        <source>operationPreparingToCopyItems</source>
        <translation>Kopieren wird vorbereitet…</translation>
    </message>
    <message>
        <source>operationRestoringDataToiCloud</source>
        <translation>Daten werden in iCloud wiederhergestellt…</translation>
    </message>
    <message>
        <source>placeholderBackupTable</source>
        <translation>Noch keine Sicherungen vorhanden. Klicken Sie auf „Sichern“, um Ihre erste Sicherung zu erstellen.</translation>
    </message>
    <message>
        <source>tableColumnTitleApplication</source>
        <translation>Anwendung</translation>
    </message>
    <message>
        <source>tableColumnTitleDate</source>
        <translation>Datum</translation>
    </message>
    <message>
        <source>tableColumnTitleItem</source>
        <translation>Objekt</translation>
    </message>
    <message>
        <source>tableColumnTitleSize</source>
        <translation>Größe</translation>
    </message>
    <message>
        <source>titleShowInFinder</source>
        <translation>Im &amp;Dateimanager zeigen</translation>
    </message>
    <message>
        <source>windowTitleBackupInfo</source>
        <translation>Informationen zur Sicherung</translation>
    </message>
    <message>
        <source>windowTitleCloseAppsBeforeBackUp</source>
        <translation>Programme vor dem Sichern beenden</translation>
    </message>
    <message>
        <source>windowTitleCloseAppsBeforeRestore</source>
        <translation>Programme vor dem Wiederherstellen beenden</translation>
    </message>
    <message>
        <source>windowTitleOperationBackUp</source>
        <translation>iCloud wird gesichert</translation>
    </message>
    <message>
        <source>windowTitleOperationRestore</source>
        <translation>iCloud wird wiederhergestellt</translation>
    </message>
</context>
<context>
    <name>MainMenu</name>
    <message>
        <source>MainMenu_File</source>
        <translation>&amp;Datei</translation>
    </message>
    <message>
        <source>MainMenu_File_Ask Before Deleting Backups</source>
        <translation>&amp;Vor dem Löschen von Sicherungen fragen</translation>
    </message>
    <message>
        <source>MainMenu_File_Back Up Now</source>
        <translation>Jetzt &amp;sichern</translation>
    </message>
    <message>
        <source>MainMenu_File_Close Window</source>
        <translation>Fenster s&amp;chließen</translation>
    </message>
    <message>
        <source>MainMenu_File_Delete Backup</source>
        <translation>Sicherung &amp;löschen</translation>
    </message>
    <message>
        <source>MainMenu_File_Get Info</source>
        <translation>&amp;Informationen anzeigen</translation>
    </message>
    <message>
        <source>MainMenu_File_Restore from Backup</source>
        <translation>Aus Sicherung &amp;wiederherstellen</translation>
    </message>
    <message>
        <source>MainMenu_File_Show in File Manager</source>
        <translation>Im &amp;Dateimanager zeigen</translation>
    </message>
    <message>
        <source>MainMenu_Help</source>
        <translation>&amp;Hilfe</translation>
    </message>
    <message>
        <source>MainMenu_Help_Pelmora Home Page</source>
        <translation>Pelmora-&amp;Website</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora</source>
        <translation>&amp;Pelmora</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora_About Pelmora</source>
        <translation>&amp;Über Pelmora</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora_Pelmora Home Page</source>
        <translation>Pelmora-&amp;Website</translation>
    </message>
    <message>
        <source>MainMenu_Pelmora_Quit Pelmora</source>
        <translation>Pelmora &amp;beenden</translation>
    </message>
    <message>
        <source>MainMenu_Window</source>
        <translation>&amp;Fenster</translation>
    </message>
    <message>
        <source>MainMenu_Window_Main Window</source>
        <translation>&amp;Hauptfenster</translation>
    </message>
    <message>
        <source>MainMenu_Window_Minimize</source>
        <translation>&amp;Minimieren</translation>
    </message>
</context>
</TS>
