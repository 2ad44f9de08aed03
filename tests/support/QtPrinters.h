#pragma once

#include <ostream>
#include <QString>
#include <QStringList>

// Readable GoogleTest failure messages for Qt's string types.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QStringList& list, std::ostream* out)
{
    *out << '[' << list.join(QStringLiteral(", ")).toStdString() << ']';
}
