#include "app/MainMenu.h"

#include <gtest/gtest.h>
#include <QAction>
#include <QMenu>
#include <QMenuBar>
#include <QTranslator>

namespace {

// Every item of the main menu, by the key its path gives it ("MainMenu_File_Open", ...).
void collectKeys(QWidget* menu, const QString& name, QStringList& keys)
{
    for (QAction* item : menu->actions()) {
        const QString title = item->menu() ? item->menu()->title() : item->text();
        if (title.isEmpty())
            continue;
        const QString key = name + "_" + (title == "Apple" ? QStringLiteral("Pelmora") : title);
        keys << key;
        if (item->menu())
            collectKeys(item->menu(), key, keys);
    }
}

TEST(MainMenuTest, EveryItemHasATextInEveryLanguage)
{
    QMenuBar bar;
    MainMenu menu(&bar);
    QStringList keys;
    collectKeys(&bar, "MainMenu", keys);
    ASSERT_GE(keys.size(), 15);
    for (const char* language : {"en", "de"}) {
        QTranslator table;
        ASSERT_TRUE(table.load(QStringLiteral("pelmora_%1").arg(language), ":/i18n"));
        for (const QString& key : keys)
            EXPECT_FALSE(table.translate("MainMenu", key.toUtf8().constData()).isEmpty())
                << language << ": " << key.toStdString();
    }
}

} // namespace
