#pragma once

#include <QString>
#include <QStringList>

// What the program is asked on its command line. Read before anything looks for a display, so that
// --help, --version and a mistyped option answer on a terminal without one.
//
// Qt's own options (-style, -platform, -session, ...) are accepted and left to QApplication: the session
// manager restarts the program with -session.
class CommandLine {
public:
    enum class Action { Run, ShowHelp, ShowVersion, Refuse };
    static constexpr int kUsageExitCode = 2;

    explicit CommandLine(const QStringList& arguments);
    static QStringList argumentsOf(int argc, char* argv[]);

    Action action() const { return m_action; }
    // The help or version text for standard output, or the one-line complaint for standard error.
    QString text() const { return m_text; }
    // Prints the text where it belongs and answers the exit status; call only when the action is not Run.
    int answerWithoutRunning() const;

private:
    void read(const QStringList& arguments);

    Action m_action = Action::Run;
    QString m_text;
};
