#include "FsError.h"

#include <cstring>

std::string FsError::describe() const
{
    return operation + " " + path.string() + ": " + std::strerror(code);
}
