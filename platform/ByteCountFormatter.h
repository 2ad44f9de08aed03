#pragma once

#include <cstdint>
#include <QLocale>
#include <QString>

// Sizes as file managers show them: decimal units (1 kB = 1000 bytes) in the user's locale.
class ByteCountFormatter {
public:
    ByteCountFormatter() = delete;
    static QString stringFromByteCount(std::uint64_t bytes, const QLocale& locale = QLocale());
};
