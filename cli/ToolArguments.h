#pragma once

#include <optional>
#include <QString>
#include <QStringList>

// The command-line tool's words: one command, its backup (a folder name or "latest") and its options.
struct ToolArguments {
    enum class Command { Help, Version, List, Backup, Restore, Delete, Compare, Schedule };

    Command command = Command::Help;
    QString backup;
    bool json = false;
    bool ignoreRunningApps = false;
    // The timer's run: a failure or items left out are also told as a desktop notification.
    bool notify = false;
    // For schedule: "hourly", "daily", "weekly" or "off"; empty to ask for the state.
    QString interval;
    std::optional<int> keep;

    // Nothing, with `error` set to one line, when the words make no command.
    static std::optional<ToolArguments> parse(const QStringList& words, QString& error);
    static QString usage();
};
