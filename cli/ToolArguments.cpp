#include "ToolArguments.h"

namespace {

struct CommandWord {
    const char* word;
    ToolArguments::Command command;
    bool takesBackup;
};

constexpr CommandWord kCommands[] = {
    {"list", ToolArguments::Command::List, false},      {"backup", ToolArguments::Command::Backup, false},
    {"restore", ToolArguments::Command::Restore, true}, {"delete", ToolArguments::Command::Delete, true},
    {"compare", ToolArguments::Command::Compare, true}, {"schedule", ToolArguments::Command::Schedule, false},
};

bool allows(ToolArguments::Command command, const QString& option)
{
    using Command = ToolArguments::Command;
    if (option == QLatin1String("--json"))
        return command == Command::List;
    if (option == QLatin1String("--ignore-running-apps"))
        return command == Command::Backup || command == Command::Restore;
    if (option == QLatin1String("--keep") || option == QLatin1String("--notify"))
        return command == Command::Backup;
    return false;
}

} // namespace

QString ToolArguments::usage()
{
    return QStringLiteral("usage: pelmora backup [--keep N] [--ignore-running-apps]\n"
                          "       pelmora list [--json]\n"
                          "       pelmora restore BACKUP [--ignore-running-apps]\n"
                          "       pelmora delete BACKUP\n"
                          "       pelmora compare BACKUP\n"
                          "       pelmora schedule [hourly|daily|weekly|off]\n"
                          "BACKUP is a backup's folder name, as `pelmora list` shows it, or \"latest\".\n");
}

std::optional<ToolArguments> ToolArguments::parse(const QStringList& words, QString& error)
{
    ToolArguments arguments;
    if (words.isEmpty() || words.first() == QLatin1String("--help") || words.first() == QLatin1String("-h"))
        return arguments;
    if (words.first() == QLatin1String("--version")) {
        arguments.command = Command::Version;
        return arguments;
    }
    const CommandWord* found = nullptr;
    for (const CommandWord& command : kCommands)
        found = words.first() == QLatin1String(command.word) ? &command : found;
    if (!found) {
        error = QStringLiteral("unknown command \"%1\"").arg(words.first());
        return std::nullopt;
    }
    arguments.command = found->command;
    for (qsizetype i = 1; i < words.size(); ++i) {
        const QString& word = words.at(i);
        if (word.startsWith(QLatin1String("--"))) {
            if (!allows(arguments.command, word)) {
                error = QStringLiteral("%1 does not take %2").arg(words.first(), word);
                return std::nullopt;
            }
            arguments.json = arguments.json || word == QLatin1String("--json");
            arguments.ignoreRunningApps =
                arguments.ignoreRunningApps || word == QLatin1String("--ignore-running-apps");
            arguments.notify = arguments.notify || word == QLatin1String("--notify");
            if (word == QLatin1String("--keep")) {
                bool number = false;
                const int keep = i + 1 < words.size() ? words.at(i + 1).toInt(&number) : 0;
                if (!number || keep < 1) {
                    error = QStringLiteral("--keep needs a number of backups, 1 or more");
                    return std::nullopt;
                }
                arguments.keep = keep;
                ++i;
            }
        } else if (found->takesBackup && arguments.backup.isEmpty()) {
            arguments.backup = word;
        } else if (arguments.command == Command::Schedule && arguments.interval.isEmpty() &&
                   (word == QLatin1String("hourly") || word == QLatin1String("daily") ||
                    word == QLatin1String("weekly") || word == QLatin1String("off"))) {
            arguments.interval = word;
        } else {
            error = QStringLiteral("unexpected \"%1\"").arg(word);
            return std::nullopt;
        }
    }
    if (found->takesBackup && arguments.backup.isEmpty()) {
        error = QStringLiteral("%1 needs a backup: its folder name or \"latest\"").arg(words.first());
        return std::nullopt;
    }
    return arguments;
}
