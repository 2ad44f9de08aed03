#pragma once

#include "PasswordDatabase.h"

class PosixPasswordDatabase final : public PasswordDatabase {
public:
    std::optional<std::string> homeDirectoryOfUser(uid_t uid) const override;
};
