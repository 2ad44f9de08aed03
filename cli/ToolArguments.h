#pragma once

#include <optional>
#include <QString>
#include <QStringList>

// The command-line tool's words: one command, its backup (a folder name or "latest") and its options.
struct ToolArguments {
    enum class Command { Help, Version, List, Backup, Restore, Delete, Compare };

    Command command = Command::Help;
    QString backup;
    bool json = false;
    bool ignoreRunningApps = false;
    std::optional<int> keep;

    // Nothing, with `error` set to one line, when the words make no command.
    static std::optional<ToolArguments> parse(const QStringList& words, QString& error);
    static QString usage();
};
