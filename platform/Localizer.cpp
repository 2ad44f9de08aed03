#include "Localizer.h"

#include <memory>
#include <QAction>
#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QMenu>
#include <QTimer>
#include <QTranslator>
#include <QWidget>

namespace {

struct LocalizerState {
    Localizer::Resources resources;
    std::unique_ptr<QTranslator> userTable; // loaded once, on first use
    bool userTableTried = false;
    std::unique_ptr<QTranslator> qtTable; // installed in the application while it lives

    std::unique_ptr<QTranslator> nativeTable;
    std::unique_ptr<QTimer> cleanTimer;
};

LocalizerState& state()
{
    static LocalizerState instance;
    return instance;
}

QString tableContext(const QString& table)
{
    return table.isEmpty() ? Localizer::kDefaultTable : table;
}

std::unique_ptr<QTranslator> loadTable(const QString& language)
{
    const Localizer::Resources& resources = state().resources;
    auto table = std::make_unique<QTranslator>();
    if (table->load(resources.baseName + QLatin1Char('_') + language, resources.directory))
        return table;
    return nullptr;
}

QStringList userLanguages()
{
    const QStringList& configured = state().resources.userLanguages;
    return configured.isEmpty() ? QLocale().uiLanguages() : configured;
}

// Qt's own texts in the language of ours, so that a window does not mix two: the key names of shortcuts
// ("Strg+I" in German), the buttons of standard dialogs. Without them Qt speaks English, which is what
// the development language needs anyway.
void installQtTable(const QString& language)
{
    const QString folder = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
    auto table = std::make_unique<QTranslator>();
    if (!QCoreApplication::instance() || !table->load(QStringLiteral("qtbase_") + language, folder))
        return;
    QCoreApplication::installTranslator(table.get());
    state().qtTable = std::move(table); // its destructor takes it out of the application again
}

// The table of the first of the user's languages that has one ("de-AT" falls back to "de"), or the
// development language's when none does, as an application bundle picks its localization.
std::unique_ptr<QTranslator> loadUserTable()
{
    for (const QString& language : userLanguages()) {
        QString name = language;
        name.replace(QLatin1Char('-'), QLatin1Char('_'));
        while (!name.isEmpty()) {
            if (auto table = loadTable(name)) {
                installQtTable(name);
                return table;
            }
            const qsizetype cut = name.lastIndexOf(QLatin1Char('_'));
            name = cut > 0 ? name.left(cut) : QString();
        }
    }
    return loadTable(state().resources.developmentLocalization);
}

// Asks the table in the user's language, answering `missing` when it has no text for the key.
QString userLanguageString(const QString& key, const QString& table, const QString& missing)
{
    LocalizerState& s = state();
    if (!s.userTableTried) {
        s.userTable = loadUserTable();
        s.userTableTried = true;
    }
    if (!s.userTable)
        return missing;
    const QString text =
        s.userTable->translate(tableContext(table).toUtf8().constData(), key.toUtf8().constData());
    return text.isEmpty() ? missing : text;
}

void scheduleNativeBundleCleaning()
{
    LocalizerState& s = state();
    if (!s.cleanTimer) {
        s.cleanTimer = std::make_unique<QTimer>();
        s.cleanTimer->setSingleShot(true);
        QObject::connect(s.cleanTimer.get(), &QTimer::timeout, [] { Localizer::cleanNativBundle(); });
    }
    // start() replaces a pending shot: the table lives its full lifetime from this load.
    s.cleanTimer->start(s.resources.nativeBundleLifetime);
}

} // namespace

void Localizer::setResources(const Resources& resources)
{
    LocalizerState& s = state();
    s.resources = resources;
    s.userTable.reset();
    s.userTableTried = false;
    s.qtTable.reset();
    cleanNativBundle();
}

QString Localizer::localizedStringForKey(const QString& key)
{
    return localizedStringForKey(key, QString());
}

QString Localizer::localizedStringForKey(const QString& key, const QString& table)
{
    const QString text = userLanguageString(key, table, kNotFound);
    if (text == kNotFound)
        return nonlocalizedStringForKey(key, table);
    return text;
}

QString Localizer::nonLocalizedStringForKey(const QString& key)
{
    return nonlocalizedStringForKey(key, QString());
}

QString Localizer::nonlocalizedStringForKey(const QString& key, const QString& table)
{
    const QTranslator* native = nativBundle();
    if (!native)
        return key;
    const QString text =
        native->translate(tableContext(table).toUtf8().constData(), key.toUtf8().constData());
    return text.isEmpty() ? key : text;
}

const QTranslator* Localizer::nativBundle()
{
    LocalizerState& s = state();
    if (s.nativeTable)
        return s.nativeTable.get();
    s.nativeTable = loadTable(s.resources.developmentLocalization);
    if (!s.nativeTable) {
        qWarning().noquote() << QStringLiteral("Can't locate native localization(%1)")
                                    .arg(s.resources.developmentLocalization);
        return nullptr;
    }
    scheduleNativeBundleCleaning();
    return s.nativeTable.get();
}

void Localizer::cleanNativBundle()
{
    LocalizerState& s = state();
    if (s.cleanTimer)
        s.cleanTimer->stop();
    s.nativeTable.reset();
}

bool Localizer::isNativBundleLoaded()
{
    return state().nativeTable != nullptr;
}

QString Localizer::okButtonTitle()
{
    return localizedStringForKey(QStringLiteral("button_ok"));
}

QString Localizer::cancelButtonTitle()
{
    return localizedStringForKey(QStringLiteral("button_cancel"));
}

QString Localizer::yesButtonTitle()
{
    return localizedStringForKey(QStringLiteral("button_yes"));
}

QString Localizer::noButtonTitle()
{
    return localizedStringForKey(QStringLiteral("button_no"));
}

QString Localizer::dontAskAgainButtonTitle()
{
    return localizedStringForKey(QStringLiteral("button_dont_ask"));
}

QString Localizer::plainTitle(const QString& title)
{
    QString plain;
    plain.reserve(title.size());
    for (qsizetype index = 0; index < title.size(); ++index) {
        if (title.at(index) == QLatin1Char('&') && index + 1 < title.size())
            ++index;
        plain += title.at(index);
    }
    return plain;
}

void Localizer::localizeMenu(QWidget* menu, const QString& name, const QString& table)
{
    if (!menu)
        return;
    // The count is read again after each item: translating may not change it, but nothing relies on that.
    for (qsizetype index = 0; index < menu->actions().size(); ++index)
        _localizeMenuItem(menu->actions().at(index), name, table);
}

void Localizer::_localizeMenuItem(QAction* item, const QString& name, const QString& table)
{
    QMenu* submenu = item->menu();
    QString title = submenu ? submenu->title() : item->text();
    if (title.isEmpty())
        return; // separators
    if (title == QLatin1String("Apple"))
        title = state().resources.bundleName;

    const QString key = name + QStringLiteral("_%1").arg(title);
    const QString text = localizedStringForKey(key, table);
    if (text != key) {
        item->setText(text);
        if (submenu)
            submenu->setTitle(text);
    }
    if (submenu)
        localizeMenu(submenu, key, table);
}
