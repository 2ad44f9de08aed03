#pragma once

#include "Helpers/BundleInfo.h"

#include <chrono>
#include <QString>
#include <QStringList>

class QAction;
class QTranslator;
class QWidget;

// The one place where user-visible text is looked up, by key: first in the user's language, then in the
// development language (English), and finally the key itself, so a caller can compare the result with
// the key to learn that a text is missing. Tables are Qt translation files, one per language, with one
// context per table ("Localizable" is the default table, "MainMenu" the menu's) and the key as source.
//
// Class operations only, used on the main thread: the development-language table is loaded on demand
// and dropped by a timer on the loading thread's event loop.
class Localizer {
public:
    Localizer() = delete;

    static inline const QString kDefaultTable = QStringLiteral("Localizable");
    static inline const QString kNotFound = QStringLiteral("__NOT_FOUND__");

    struct Resources {
        QString directory = QStringLiteral(":/i18n");
        QString baseName = QStringLiteral("pelmora"); // files are <baseName>_<language>.qm
        QString developmentLocalization = QString::fromLatin1(BundleInfo::kDevelopmentLocalization);
        QStringList userLanguages; // empty: the system's UI languages
        QString bundleName =
            QString::fromLatin1(BundleInfo::kBundleName); // stands in for the "Apple" menu title
        std::chrono::milliseconds nativeBundleLifetime{5000};
    };
    // Where the tables are and which languages the user reads. The program keeps the defaults; tests
    // point it at their own tables and shorten the lifetime. Drops every loaded table.
    static void setResources(const Resources& resources);

    static QString localizedStringForKey(const QString& key);
    static QString localizedStringForKey(const QString& key, const QString& table);
    static QString nonLocalizedStringForKey(const QString& key);
    static QString nonlocalizedStringForKey(const QString& key, const QString& table);

    // The development-language table, loaded if needed; null when it cannot be found (logged).
    static const QTranslator* nativBundle();
    static void cleanNativBundle();
    static bool isNativBundleLoaded();

    static QString okButtonTitle();
    static QString cancelButtonTitle();
    static QString yesButtonTitle();
    static QString noButtonTitle();
    static QString dontAskAgainButtonTitle();

    // A button or menu title as running text: without its access-key marker ("&Restore" reads "Restore",
    // "&&" reads "&").
    static QString plainTitle(const QString& title);

    // Translates every item of a menu bar or menu in place, recursively. The key of an item is the
    // menu's name, "_", and the item's title; a submenu's items are keyed under the submenu's key.
    static void localizeMenu(QWidget* menu, const QString& name, const QString& table);
    static void _localizeMenuItem(QAction* item, const QString& name, const QString& table);
};
