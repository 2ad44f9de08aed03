// The program's string tables against the code that uses them.
#include "support/QtPrinters.h"

#include <gtest/gtest.h>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTranslator>
#include <QXmlStreamReader>

namespace {

// Each entry of a table as "context/key" and its text, which is empty where the translation is unfinished.
QList<std::pair<QString, QString>> readTable(const char* language)
{
    QFile file(QStringLiteral(PELMORA_SOURCE_DIR "/resources/strings/pelmora_%1.ts").arg(language));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QList<std::pair<QString, QString>> entries;
    QString context;
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("name"))
            context = xml.readElementText();
        else if (xml.name() == QLatin1String("source"))
            entries.append({context + "/" + xml.readElementText(), {}});
        else if (xml.name() == QLatin1String("translation") && !entries.isEmpty())
            entries.last().second =
                xml.attributes().value("type").isEmpty() ? xml.readElementText() : QString();
    }
    return entries;
}

// Every text key written in the code: a string literal named the way keys are named, by the kind of
// element it labels ("alert...", "btnTitle...", "button_...", "label...", ...).
QSet<QString> keysUsedInCode()
{
    static const QRegularExpression literal(
        R"("((?:alert|btnTitle|button_|contextMenu|formatString|label|menuItem|openPanel|operation|)"
        R"(placeholder|tableColumn|titleShow|windowTitle)[A-Za-z_]*)\")");
    QSet<QString> keys;
    for (const char* folder : {"app", "Helpers", "engine", "ui", "watch", "platform"}) {
        QDirIterator it(QStringLiteral(PELMORA_SOURCE_DIR "/") + folder, {"*.cpp", "*.h"}, QDir::Files,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile source(it.next());
            if (!source.open(QIODevice::ReadOnly))
                continue;
            const QString text = QString::fromUtf8(source.readAll());
            for (const QRegularExpressionMatch& match : literal.globalMatch(text))
                keys.insert(match.captured(1));
        }
    }
    return keys;
}

QStringList placeholders(const QString& text)
{
    static const QRegularExpression marker(R"(%\d)");
    QStringList found;
    for (const QRegularExpressionMatch& match : marker.globalMatch(text))
        found << match.captured(0);
    found.sort();
    return found;
}

TEST(StringTablesTest, EveryKeyTheCodeLooksUpHasAnEnglishText)
{
    const QSet<QString> used = keysUsedInCode();
    ASSERT_TRUE(used.contains("button_ok")) << "the scan of the sources found nothing";
    QTranslator english;
    ASSERT_TRUE(english.load("pelmora_en", ":/i18n"));
    for (const QString& key : used)
        EXPECT_FALSE(english.translate("Localizable", key.toUtf8().constData()).isEmpty())
            << "missing from the English table: " << key.toStdString();
}

TEST(StringTablesTest, EveryLanguageHasEveryKeyWithAFinishedTextAndTheSamePlaceholders)
{
    const QList<std::pair<QString, QString>> english = readTable("en");
    const QList<std::pair<QString, QString>> german = readTable("de");
    ASSERT_GT(english.size(), 60);
    const QHash<QString, QString> germanById(german.cbegin(), german.cend());
    ASSERT_EQ(germanById.size(), german.size()) << "a key appears twice in the German table";

    for (const auto& [id, text] : english) {
        EXPECT_FALSE(text.isEmpty()) << "English: " << id.toStdString();
        ASSERT_TRUE(germanById.contains(id)) << "missing from the German table: " << id.toStdString();
        EXPECT_FALSE(germanById.value(id).isEmpty()) << "German: " << id.toStdString();
        EXPECT_EQ(placeholders(text), placeholders(germanById.value(id))) << id.toStdString();
    }
    EXPECT_EQ(english.size(), german.size());
}

// Alt and a letter press a button: each button title has one access key, and within one window (or one
// menu) no two share a letter.
TEST(StringTablesTest, TheButtonsOfEachWindowHaveAnAccessKeyOfTheirOwnInEveryLanguage)
{
    const QList<QStringList> windows = {
        {"btnTitleDelete", "titleShowInFinder", "btnTitleRestore", "btnTitleBackUp"}, // the main window
        {"contextMenuItemTitleGetInfo", "titleShowInFinder", "btnTitleRestore",
         "btnTitleDelete"},                                 // a row's menu
        {"button_cancel", "btnTitleBackUpNow"},             // the apps-to-quit window, before a backup
        {"button_cancel", "btnTitleRestore"},               // and before a restore
        {"titleShowInFinder", "btnTitleCompareWithiCloud"}, // the info window
        {"button_cancel"}};                                 // the progress window
    for (const char* language : {"en", "de"}) {
        QTranslator table;
        ASSERT_TRUE(table.load(QStringLiteral("pelmora_%1").arg(language), ":/i18n"));
        for (const QStringList& keys : windows) {
            QSet<QChar> letters;
            for (const QString& key : keys) {
                const QString title = table.translate("Localizable", key.toUtf8().constData());
                const qsizetype marker = title.indexOf('&');
                ASSERT_TRUE(marker >= 0 && marker + 1 < title.size() && title.indexOf('&', marker + 1) < 0)
                    << language << ": " << title.toStdString();
                const QChar letter = title.at(marker + 1).toLower();
                EXPECT_FALSE(letters.contains(letter)) << language << ": " << title.toStdString();
                letters.insert(letter);
            }
        }
    }
}

} // namespace
