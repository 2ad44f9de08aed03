#include "platform/Localizer.h"

#include "support/EventLoop.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>
#include <QKeySequence>
#include <QMenu>
#include <QMenuBar>

using namespace std::chrono_literals;

namespace {

QStringList capturedMessages;

// Test tables: "inBoth" in English and German, "onlyInDevelopment" in English only, and a German text
// that is literally the sentinel.
class LocalizerTest : public ::testing::Test {
protected:
    void SetUp() override { useTables("de"); }
    void TearDown() override
    {
        qInstallMessageHandler(nullptr);
        Localizer::setResources(Localizer::Resources{});
    }
    void useTables(const QString& userLanguage, const QString& development = "en",
                   std::chrono::milliseconds lifetime = 5000ms)
    {
        Localizer::setResources({.directory = ":/testi18n",
                                 .baseName = "test",
                                 .developmentLocalization = development,
                                 .userLanguages = {userLanguage},
                                 .nativeBundleLifetime = lifetime});
    }
};

TEST_F(LocalizerTest, LooksInTheUsersLanguageThenTheDevelopmentLanguageThenGivesTheKeyLoggingAMissingTable)
{
    EXPECT_EQ(Localizer::localizedStringForKey("inBoth"), "Deutsch beide");
    EXPECT_EQ(Localizer::localizedStringForKey("onlyInDevelopment"), "Development only");
    EXPECT_EQ(Localizer::localizedStringForKey("sentinelInUser"), "English fallback"); // counts as missing
    EXPECT_EQ(Localizer::localizedStringForKey("nowhere"), "nowhere");
    EXPECT_EQ(Localizer::localizedStringForKey("inBoth", "NoSuchTable"), "inBoth");
    // The development language alone, whatever the user's.
    EXPECT_EQ(Localizer::nonLocalizedStringForKey("inBoth"), "English both");
    EXPECT_EQ(Localizer::nonlocalizedStringForKey("TestMenu_Pelmora", "MainMenu"), "Pelmora (en)");
    EXPECT_EQ(Localizer::nonLocalizedStringForKey("nowhere"), "nowhere");
    // A user language without a table of its own falls back to its base language, else the development one.
    useTables("de-AT");
    EXPECT_EQ(Localizer::localizedStringForKey("inBoth"), "Deutsch beide");
    useTables("fr-FR");
    EXPECT_EQ(Localizer::localizedStringForKey("inBoth"), "English both");

    // A missing development table is logged on every lookup that needs it.
    useTables("de", "xx");
    capturedMessages.clear();
    qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& message) { capturedMessages << message; });
    EXPECT_EQ(Localizer::localizedStringForKey("onlyInDevelopment"), "onlyInDevelopment");
    EXPECT_EQ(Localizer::localizedStringForKey("inBoth"), "Deutsch beide");
    EXPECT_EQ(Localizer::nativBundle(), nullptr);
    EXPECT_EQ(capturedMessages,
              QStringList({"Can't locate native localization(xx)", "Can't locate native localization(xx)"}));
}

TEST_F(LocalizerTest, TheDevelopmentTableIsLoadedOnDemandAndDroppedAfterItsLifetimeHoweverMuchUsed)
{
    useTables("de", "en", 100ms);
    EXPECT_FALSE(Localizer::isNativBundleLoaded());
    Localizer::localizedStringForKey("inBoth"); // found in German: no need for the development table
    EXPECT_FALSE(Localizer::isNativBundleLoaded());
    Localizer::localizedStringForKey("onlyInDevelopment");
    EXPECT_TRUE(Localizer::isNativBundleLoaded());
    // Kept busy with lookups that need it, it still goes once its lifetime from loading is over.
    EXPECT_TRUE(runEventLoopUntil([] {
        if (!Localizer::isNativBundleLoaded())
            return true;
        Localizer::nonLocalizedStringForKey("onlyInDevelopment");
        return false;
    }));
    EXPECT_EQ(Localizer::localizedStringForKey("onlyInDevelopment"), "Development only");
    EXPECT_NE(Localizer::nativBundle(), nullptr);
}

TEST_F(LocalizerTest, MenusAreTranslatedByTheirPathWithTheBundleNameForTheApplicationMenu)
{
    QMenuBar bar;
    QMenu* application = bar.addMenu("Apple");
    application->addAction("About");
    application->addSeparator();
    application->addAction("Unknown item");
    QMenu* untranslated = bar.addMenu("Untranslated");
    untranslated->addAction("Item");

    useTables("en");
    Localizer::localizeMenu(&bar, "TestMenu", "MainMenu");

    EXPECT_EQ(application->title(), "Pelmora (en)");
    EXPECT_EQ(application->actions().at(0)->text(), "About (en)");
    EXPECT_EQ(application->actions().at(2)->text(), "Unknown item");
    // Its own key is missing, yet its items are found under keys built from the untranslated title.
    EXPECT_EQ(untranslated->title(), "Untranslated");
    EXPECT_EQ(untranslated->actions().at(0)->text(), "Item (en)");
}

TEST_F(LocalizerTest, ButtonTitlesComeFromTheProgramsTablesAndQtsOwnTextsFollowTheirLanguage)
{
    const QKeySequence getInfo(Qt::CTRL | Qt::Key_I);
    Localizer::setResources({.userLanguages = {"de-AT"}});
    EXPECT_EQ(Localizer::cancelButtonTitle(), "&Abbrechen");
    EXPECT_EQ(getInfo.toString(QKeySequence::NativeText), "Strg+I") << "Qt's own texts follow ours";

    Localizer::setResources({.userLanguages = {"en"}});
    EXPECT_EQ(getInfo.toString(QKeySequence::NativeText), "Ctrl+I") << "dropped with the German table";
    EXPECT_EQ(Localizer::plainTitle("Save && &Quit"), "Save & Quit");
}

} // namespace
