#pragma once

#include "platform/FolderChooser.h"
#include "platform/PasswordDatabase.h"

#include <optional>
#include <QStringList>
#include <string>

// A folder chooser that answers from a script and remembers the titles it was shown with.
class ScriptedFolderChooser : public FolderChooser {
public:
    std::optional<QString> chooseFolder(const QString& title) override
    {
        titles << title;
        return answer;
    }
    std::optional<QString> answer;
    QStringList titles;
};

class ScriptedPasswordDatabase : public PasswordDatabase {
public:
    std::optional<std::string> homeDirectoryOfUser(uid_t) const override { return home; }
    std::optional<std::string> home;
};
