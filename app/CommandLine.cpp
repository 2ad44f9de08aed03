#include "CommandLine.h"

#include "Helpers/BundleInfo.h"

#include <cstdio>
#include <QCommandLineOption>
#include <QCommandLineParser>

namespace {

struct QtOption {
    const char* name;
    bool takesValue;
};

// QGuiApplication's, QApplication's and the X11 plugin's options, which QApplication takes out of argv.
constexpr QtOption kQtOptions[] = {
    {"platform", true},      {"platformpluginpath", true},
    {"platformtheme", true}, {"plugin", true},
    {"qmljsdebugger", true}, {"qwindowgeometry", true},
    {"qwindowicon", true},   {"qwindowtitle", true},
    {"reverse", false},      {"session", true},
    {"display", true},       {"geometry", true},
    {"title", true},         {"icon", true},
    {"name", true},          {"visual", true},
    {"style", true},         {"stylesheet", true},
    {"widgetcount", false},  {"nograb", false},
    {"dograb", false},       {"sync", false},
    {"testability", false},
};

const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                    QStringLiteral("Shows these options and exits."));
const QCommandLineOption versionOption({QStringLiteral("v"), QStringLiteral("version")},
                                       QStringLiteral("Shows the version and exits."));

QString programName()
{
    return QString::fromLatin1(BundleInfo::kBundleName);
}

void addQtOptions(QCommandLineParser& parser)
{
    for (const QtOption& qtOption : kQtOptions) {
        QCommandLineOption option(QString::fromLatin1(qtOption.name), QString(),
                                  qtOption.takesValue ? QStringLiteral("value") : QString());
        option.setFlags(QCommandLineOption::HiddenFromHelp);
        parser.addOption(option);
    }
}

// Without an application object Qt calls the program "<executable_name>".
QString helpText(const QCommandLineParser& parser)
{
    const QString text = parser.helpText();
    return QStringLiteral("Usage: %1 [options]").arg(programName()) +
           text.mid(text.indexOf(QLatin1Char('\n'))) +
           QStringLiteral("\nQt's own options (-style, -platform, -session, ...) are passed on to Qt.\n");
}

// The option as the user typed it, dashes included, rather than the parser's bare name.
QString asTyped(const QStringList& arguments, const QString& name)
{
    for (const QString& argument : arguments.mid(1)) {
        const QString bare = argument.section(QLatin1Char('='), 0, 0);
        const qsizetype dashes = bare.startsWith(QStringLiteral("--")) ? 2 : 1;
        if (bare.startsWith(QLatin1Char('-')) && bare.mid(dashes) == name)
            return bare;
    }
    return QStringLiteral("--") + name;
}

QString complaint(const QString& what)
{
    return QStringLiteral("%1: %2. Run '%1 --help' to see the options.").arg(programName(), what);
}

QString parseFailure(const QCommandLineParser& parser, const QStringList& arguments)
{
    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty())
        return complaint(QStringLiteral("unknown option '%1'").arg(asTyped(arguments, unknown.first())));
    QString error = parser.errorText();
    if (error.endsWith(QLatin1Char('.')))
        error.chop(1);
    if (!error.isEmpty())
        error[0] = error[0].toLower();
    return complaint(error);
}

} // namespace

CommandLine::CommandLine(const QStringList& arguments)
{
    read(arguments);
}

QStringList CommandLine::argumentsOf(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    return arguments;
}

int CommandLine::answerWithoutRunning() const
{
    const QByteArray bytes = m_text.toLocal8Bit();
    std::fputs(bytes.constData(), m_action == Action::Refuse ? stderr : stdout);
    return m_action == Action::Refuse ? kUsageExitCode : 0;
}

void CommandLine::read(const QStringList& arguments)
{
    QCommandLineParser parser;
    // Qt's options come with one dash, and -style must not read as -s -t -y -l -e.
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.setApplicationDescription(
        QStringLiteral("Keeps dated backups of ~/Library/Mobile Documents and restores them."));
    parser.addOption(helpOption);
    parser.addOption(versionOption);
    addQtOptions(parser);
    if (!parser.parse(arguments)) {
        m_action = Action::Refuse;
        m_text = parseFailure(parser, arguments) + QLatin1Char('\n');
    } else if (!parser.positionalArguments().isEmpty()) {
        m_action = Action::Refuse;
        m_text =
            complaint(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first())) +
            QLatin1Char('\n');
    } else if (parser.isSet(helpOption)) {
        m_action = Action::ShowHelp;
        m_text = helpText(parser);
    } else if (parser.isSet(versionOption)) {
        m_action = Action::ShowVersion;
        m_text = QStringLiteral("%1 %2\n").arg(programName(), QString::fromLatin1(BundleInfo::kVersion));
    }
}
