// The program's string tables against the code that uses them.
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTranslator>
#include <QXmlStreamReader>
#include <gtest/gtest.h>

#include "support/QtPrinters.h"

namespace {

struct TableEntry {
    QString context;
    QString key;
    QString text;
    bool finished = true;
};

QList<TableEntry> readTable(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QList<TableEntry> entries;
    QString context;
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.name() == QLatin1String("source")) {
            entries.append({context, xml.readElementText(), {}, true});
        } else if (xml.name() == QLatin1String("translation") && !entries.isEmpty()) {
            entries.last().finished = xml.attributes().value("type").isEmpty();
            entries.last().text = xml.readElementText();
        }
    }
    return entries;
}

QString tablePath(const char* language)
{
    return QStringLiteral(PELMORA_SOURCE_DIR "/resources/strings/pelmora_%1.ts").arg(language);
}

// Every text key written in the code: a string literal named the way keys are named, by the kind of
// element it labels ("alert...", "btnTitle...", "button_...", "label...", ...).
QSet<QString> keysUsedInCode()
{
    static const QRegularExpression literal(
        R"("((?:alert|btnTitle|button_|contextMenu|formatString|label|menuItem|openPanel|operation|placeholder|)"
        R"(tableColumn|titleShow|windowTitle)[A-Za-z_]*)\")");
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
    const QList<TableEntry> english = readTable(tablePath("en"));
    const QList<TableEntry> german = readTable(tablePath("de"));
    ASSERT_GT(english.size(), 60);

    QHash<QString, TableEntry> germanByKey;
    for (const TableEntry& entry : german)
        germanByKey.insert(entry.context + "/" + entry.key, entry);
    ASSERT_EQ(germanByKey.size(), german.size()) << "a key appears twice in the German table";

    for (const TableEntry& entry : english) {
        const QString id = entry.context + "/" + entry.key;
        EXPECT_TRUE(entry.finished && !entry.text.isEmpty()) << "English: " << id.toStdString();
        ASSERT_TRUE(germanByKey.contains(id)) << "missing from the German table: " << id.toStdString();
        const TableEntry& translated = germanByKey.value(id);
        EXPECT_TRUE(translated.finished && !translated.text.isEmpty()) << "German: " << id.toStdString();
        EXPECT_EQ(placeholders(entry.text), placeholders(translated.text)) << id.toStdString();
    }
    EXPECT_EQ(english.size(), german.size());
}

TEST(StringTablesTest, FormatStringsTakeTheirArgumentsInOrder)
{
    QTranslator english;
    ASSERT_TRUE(english.load("pelmora_en", ":/i18n"));
    const QString content = english.translate("Localizable", "formatStringBackupContent");
    EXPECT_EQ(placeholders(content), QStringList({"%1", "%2"}));
    EXPECT_EQ(placeholders(english.translate("Localizable", "formatStringCloseApps")), QStringList({"%1"}));
    EXPECT_EQ(placeholders(english.translate("Localizable", "menuItemTitleBackup")), QStringList({"%1"}));
}

} // namespace
